// Sources over a network that don't come fast enough, that are read ahead, and whose connection breaks.

#include <gmock/gmock.h>

#include <chrono>
#include <thread>
#include <tuple>

#include "e2e/http_server.h"
#include "e2e/media.h"
#include "e2e/playback.h"
#include "e2e/recording_sink.h"
#include "e2e/stalls.h"

namespace kelp::test {
namespace {

constexpr int kAtMostMs = Stalls::kAtMostMs;
constexpr int kStillMs = 1000;
constexpr const char* kFilm = "faststart.mp4";

class Stall : public testing::Test {
protected:
    Stall() {
        player().enableHwDecoder(false, HW_DECODE_NONE);
        player().setOption("preset", "recommended");
        player().setStallObserver(&stalls_);
        player().addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&sink_), 0, 0);
    }

    KelpPlayer& player() { return playback_.player(); }
    // Waits for the stall where the server holds the film. On a machine that is busy there may be one before, which
    // ends when what was sent has been read: so it is the one behind which nothing moves any more.
    bool waitForStallAt(int64_t heldAt) {
        const auto now = [&] {
            return std::tuple(stalls_.now(), player().getCurrentTime(), player().getStatistics().video.packets);
        };
        for (int waitedMs = 0; waitedMs < kAtMostMs; waitedMs += kStillMs) {
            if (!stalls_.waitFor("stalled")) {
                return false;
            }
            const auto before = now();
            std::this_thread::sleep_for(std::chrono::milliseconds(kStillMs));
            if (server_.sent() == heldAt && now() == before && stalls_.now().first % 2 == 1) {
                return true;
            }
        }
        return false;
    }
    // Nothing more is asked for by a seek among what the server has `sent`.
    void seekInAPauseBehind(int64_t sent) {
        ASSERT_TRUE(playback_.open(server_.url()));
        ASSERT_TRUE(player().play());
        ASSERT_TRUE(playback_.waitFor(Happened::FirstVideoFrame, kAtMostMs));
        ASSERT_TRUE(player().pause());
        // In the pause all is read that comes, and frames of both are decoded as far as there is room.
        const auto isReady = [&] {
            const Statistics now = player().getStatistics();
            return server_.sent() == sent && now.video.queue.durationMs > 1500 && now.video.pictures.count > 1 &&
                   now.audio.sound.count > 1;
        };
        for (int waitedMs = 0; !isReady() && waitedMs < kAtMostMs; waitedMs += 10) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        ASSERT_TRUE(isReady());
        const int requests = server_.requests();
        ASSERT_TRUE(player().seek(1600));
        ASSERT_TRUE(playback_.waitFor(Happened::FirstVideoFrame, kAtMostMs, 2));
        EXPECT_EQ(playback_.last(Happened::FirstVideoFrame).a, 1600);
        EXPECT_EQ(server_.requests(), requests);
        EXPECT_EQ(server_.sent(), sent);
    }
    // Whether each picture came to its time. A machine that is busy may leave out some as late.
    bool isAllPlayed() {
        const MediaFile& film = mediaFile(kFilm);
        if (!sink_.waitForPicture((film.frames - 1) * 40, kAtMostMs)) {
            return false;
        }
        // They are counted behind the sink's picture.
        const auto isCounted = [&] {
            const VideoStatistics video = player().getStatistics().video;
            return video.packets == film.frames && video.shown + video.late == film.frames;
        };
        for (int waitedMs = 0; !isCounted() && waitedMs < kAtMostMs; waitedMs += 10) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return isCounted();
    }

    HttpServer server_{mediaPath(kFilm)};
    Stalls stalls_;
    RecordingSink sink_{RecordingSink::Keep::Nothing};
    Playback playback_;
};

TEST_F(Stall, HoldsPlaybackIsToldOnceAndLosesNoPicture) {
    server_.holdAt(server_.size() / 2);
    ASSERT_TRUE(playback_.open(server_.url()));
    ASSERT_TRUE(player().play());
    ASSERT_TRUE(waitForStallAt(server_.size() / 2));
    const int heldMs = player().getCurrentTime();
    const int shown = sink_.frameCount();
    EXPECT_LT(heldMs, mediaFile(kFilm).durationMs / 2 + 500);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(player().getCurrentTime(), heldMs);
    EXPECT_EQ(sink_.frameCount(), shown);
    EXPECT_EQ(playback_.count(Happened::Completed), 0);
    server_.release();
    ASSERT_TRUE(stalls_.waitFor("ended"));
    ASSERT_TRUE(playback_.waitFor(Happened::Completed, kAtMostMs));
    EXPECT_TRUE(isAllPlayed());
    EXPECT_TRUE(stalls_.arePaired());
    EXPECT_EQ(server_.requests(), 1);
    EXPECT_EQ(server_.sent(), server_.size());
}

TEST_F(Stall, LeavesPauseResumeAndSeekToTheHost) {
    server_.holdAt(server_.size() / 2);
    ASSERT_TRUE(playback_.open(server_.url()));
    ASSERT_TRUE(player().play());
    ASSERT_TRUE(waitForStallAt(server_.size() / 2));
    ASSERT_TRUE(player().pause());
    ASSERT_TRUE(player().resume());
    ASSERT_TRUE(player().pause());
    ASSERT_TRUE(player().seek(400));
    // What comes anew for it may be enough to go on.
    ASSERT_TRUE(playback_.waitFor(Happened::FirstVideoFrame, kAtMostMs, 2));
    EXPECT_EQ(playback_.last(Happened::FirstVideoFrame).a, 400);
    server_.release();
    ASSERT_TRUE(stalls_.waitFor("ended"));
    const int shown = sink_.frameCount();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(sink_.frameCount(), shown) << "still in the host's pause";
    ASSERT_TRUE(player().resume());
    ASSERT_TRUE(playback_.waitFor(Happened::Completed, kAtMostMs));
}

TEST_F(Stall, EndsWithAStop) {
    server_.holdAt(server_.size() / 2);
    ASSERT_TRUE(playback_.open(server_.url()));
    ASSERT_TRUE(player().play());
    ASSERT_TRUE(waitForStallAt(server_.size() / 2));
    ASSERT_TRUE(player().stop());
    EXPECT_TRUE(stalls_.waitFor("ended"));
    EXPECT_TRUE(stalls_.arePaired());
}

TEST_F(Stall, DoesNotComeOfASeekWithinWhatWasReadAhead) {
    server_.holdAt(server_.size() * 9 / 10);
    seekInAPauseBehind(server_.size() * 9 / 10);
}

TEST_F(Stall, DoesNotComeOfASeekWithinWhatWasReadToTheEnd) {
    seekInAPauseBehind(server_.size());
    ASSERT_TRUE(player().resume());
    EXPECT_TRUE(playback_.waitFor(Happened::Completed, kAtMostMs));
    EXPECT_TRUE(sink_.waitForPicture((mediaFile(kFilm).frames - 1) * 40, kAtMostMs));
}

TEST_F(Stall, OfAConnectionThatBreaksIsAskedAgain) {
    server_.dropAt(server_.size() / 2);
    ASSERT_TRUE(playback_.open(server_.url()));
    ASSERT_TRUE(player().play());
    ASSERT_TRUE(playback_.waitFor(Happened::Completed, kAtMostMs));
    EXPECT_TRUE(isAllPlayed());
    EXPECT_EQ(server_.requests(), 2);
    EXPECT_EQ(server_.sent(), server_.size());
}

}  // namespace
}  // namespace kelp::test
