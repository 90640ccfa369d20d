// The calls of the C interface with one allocation that fails, each in its turn: no exception comes out of one, and one
// that says 0 or null has left a text.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "faults/failing_allocations.h"
#include "kelp_player/kelp_player_c.h"

namespace kelp::test {
namespace {

template <typename Struct>
Struct sized() {
    Struct made{};
    made.size = sizeof(made);
    return made;
}

// Makes every kind of handle, and makes each do something that needs memory. Ends them with memory enough.
class CHost {
public:
    void live() {
        const auto events = sized<kelp_player_events>();
        attempt("kelp_player_create", [&] { return (player_ = kelp_player_create(&events)) != nullptr; });
        attempt("kelp_log_set_callback", [&] { return kelp_log_set_callback(swallow, this, release) == 1; });
        ++held_;
        attempt("kelp_log_write", [&] { return kelp_log_write(KELP_LOG_ERROR, "Host", "a line\n") == 1; });
        if (player_) {
            play();
        }
        auto clock = sized<kelp_clock_calls>();
        clock.get_time_ms = [](void*) { return int64_t{0}; };
        attempt("kelp_clock_create", [&] { return (clocks_[0] = kelp_clock_create(0, 10000)) != nullptr; });
        attempt("kelp_clock_create_own", [&] { return (clocks_[1] = kelp_clock_create_own(&clock)) != nullptr; });
        attempt("kelp_recorder_create", [&] { return (recorder_ = kelp_recorder_create(nullptr)) != nullptr; });
        if (recorder_) {
            attempt("kelp_recorder_start",
                    [&] { return kelp_recorder_start(recorder_, "/missing/film.mp4", nullptr) == 1; });
        }
        attempt("kelp_muxer_create", [&] { return (muxer_ = kelp_muxer_create()) != nullptr; });
        if (muxer_) {
            attempt("kelp_muxer_set_option",
                    [&] { return kelp_muxer_set_option(muxer_, "timeout", "500000 microseconds") == 1; });
        }
        attempt("kelp_udp_receiver_create",
                [&] { return (receiver_ = kelp_udp_receiver_create(nullptr, nullptr)) != nullptr; });
        attempt("kelp_udp_sender_create", [&] { return (sender_ = kelp_udp_sender_create()) != nullptr; });
        end();
    }

private:
    template <typename Call>
    void attempt(const char* name, Call call) {
        const bool failedBefore = FailingAllocations::failed();
        bool done = false;
        try {
            const FailingAllocations::Window window;
            done = call();
        } catch (...) {
            ADD_FAILURE() << name << " throws";
        }
        if (FailingAllocations::failed() && !failedBefore) {
            EXPECT_TRUE(done || std::string(kelp_last_error()).starts_with(name)) << kelp_last_error();
        } else {
            EXPECT_TRUE(done) << name << ", " << kelp_last_error();
        }
    }

    void play() {
        const auto frames = sized<kelp_frame_sink_calls>();
        const auto packets = sized<kelp_packet_sink_calls>();
        const auto subtitles = sized<kelp_subtitle_sink_calls>();
        auto statistics = sized<kelp_statistics>();
        attempt("kelp_frame_sink_create", [&] { return (frames_ = kelp_frame_sink_create(&frames)) != nullptr; });
        attempt("kelp_packet_sink_create", [&] { return (packets_ = kelp_packet_sink_create(&packets)) != nullptr; });
        attempt("kelp_subtitle_sink_create",
                [&] { return (subtitles_ = kelp_subtitle_sink_create(&subtitles)) != nullptr; });
        if (frames_) {
            attempt("kelp_player_add_frame_sink", [&] { return kelp_player_add_frame_sink(player_, frames_) == 1; });
        }
        attempt("kelp_player_set_packet_sink", [&] { return kelp_player_set_packet_sink(player_, packets_) == 1; });
        attempt("kelp_player_set_subtitle_sink",
                [&] { return kelp_player_set_subtitle_sink(player_, subtitles_) == 1; });
        attempt("kelp_player_set_option",
                [&] { return kelp_player_set_option(player_, "max_delay", "500000 microseconds") == 1; });
        attempt("kelp_player_run_in_worker",
                [&] { return kelp_player_run_in_worker(player_, nothing, this, release) == 1; });
        attempt("kelp_player_add_timer",
                [&] { return kelp_player_add_timer(player_, 3600 * 1000, 0, nothing, this, release) != 0; });
        held_ += 2;
        attempt("kelp_player_set_data_source",
                [&] { return kelp_player_set_data_source(player_, "a film that isn't there.mp4", 0) == 1; });
        attempt("kelp_player_get_tracks", [&] {
            kelp_tracks* const tracks = kelp_player_get_tracks(player_);
            kelp_tracks_free(tracks);
            return tracks != nullptr;
        });
        attempt("kelp_player_get_statistics", [&] { return kelp_player_get_statistics(player_, &statistics) == 1; });
    }

    void end() {
        kelp_player_destroy(player_);
        kelp_frame_sink_destroy(frames_);
        kelp_packet_sink_destroy(packets_);
        kelp_subtitle_sink_destroy(subtitles_);
        kelp_recorder_destroy(recorder_);
        kelp_clock_destroy(clocks_[0]);
        kelp_clock_destroy(clocks_[1]);
        kelp_muxer_destroy(muxer_);
        kelp_udp_receiver_destroy(receiver_);
        kelp_udp_sender_destroy(sender_);
        EXPECT_EQ(kelp_log_set_callback(nullptr, nullptr, nullptr), 1);
        EXPECT_EQ(released_, held_);
    }

    static void nothing(void*) {}
    static void swallow(void*, const char*) {}
    static void release(void* user) { ++static_cast<CHost*>(user)->released_; }

    kelp_player* player_ = nullptr;
    kelp_frame_sink* frames_ = nullptr;
    kelp_packet_sink* packets_ = nullptr;
    kelp_subtitle_sink* subtitles_ = nullptr;
    kelp_recorder* recorder_ = nullptr;
    kelp_clock* clocks_[2] = {};
    kelp_muxer* muxer_ = nullptr;
    kelp_udp_receiver* receiver_ = nullptr;
    kelp_udp_sender* sender_ = nullptr;
    int held_ = 0;  // of what was handed over along with a `release`
    std::atomic<int> released_{0};
};

// Which ones fail: all, but where each takes long.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int64_t kStep = 7;
#else
constexpr int64_t kStep = 1;
#endif

TEST(CInterfaceWithoutMemory, AnswersEveryCallAndLeavesAText) {
    setenv("SDL_VIDEODRIVER", "dummy", 1);
    setenv("SDL_AUDIODRIVER", "dummy", 1);
    CHost().live();  // what is there for good from then on
    int64_t number = 1;
    for (bool failed = true; failed && !HasFailure(); number += kStep) {
        SCOPED_TRACE(number);
        FailingAllocations::arm(FailingAllocations::Of::WindowThreads, number);
        CHost().live();
        failed = FailingAllocations::failed();
    }
    FailingAllocations::disarm();
    EXPECT_GT(number, 20);
}

}  // namespace
}  // namespace kelp::test
