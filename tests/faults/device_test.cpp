// Playback while something from outside breaks: the sound device, a window, a sink, the file, the wall clock.

#include <SDL.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <thread>
#include <vector>

#include "e2e/media.h"
#include "e2e/playback.h"
#include "e2e/recording_sink.h"
#include "faults/jumping_time.h"
#include "support/log_capture.h"

namespace {

enum class Device { Works, IsMissing, FallsSilent };
std::atomic<Device> g_device{Device::Works};

std::atomic<SDL_AudioCallback> g_callback{nullptr};  // of each device, as several may play

// A device that is gone asks for no more samples.
void callWhileThere(void* opaque, Uint8* stream, int length) {
    if (g_device == Device::Works) {
        g_callback.load()(opaque, stream, length);
    } else {
        SDL_memset(stream, 0, static_cast<size_t>(length));
    }
}

}  // namespace

extern "C" {

SDL_AudioDeviceID __real_SDL_OpenAudioDevice(const char* device, int capture, const SDL_AudioSpec* wanted,
                                             SDL_AudioSpec* obtained, int changes);
SDL_AudioDeviceID __wrap_SDL_OpenAudioDevice(const char* device, int capture, const SDL_AudioSpec* wanted,
                                             SDL_AudioSpec* obtained, int changes) {
    if (g_device == Device::IsMissing) {
        SDL_SetError("no device today");
        return 0;
    }
    SDL_AudioSpec spec = *wanted;
    g_callback = spec.callback;
    spec.callback = callWhileThere;
    return __real_SDL_OpenAudioDevice(device, capture, &spec, obtained, changes);
}

}  // extern "C"

namespace kelp::test {
namespace {

constexpr int kWaitMs = 60000;
constexpr int64_t kIntervalMs = 40;
constexpr int64_t kLastPtsMs = 74 * kIntervalMs;  // small.mp4

class Faults : public testing::Test {
protected:
    Faults() { g_device = Device::Works; }
    ~Faults() override { g_device = Device::Works; }

    void open(Playback& playback, const std::string& path, SyncMasterMode mode = SYNC_MASTER_AUDIO) {
        playback.player().addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&sink_), 320, 180);
        playback.player().setAVSyncMode(mode);
        ASSERT_TRUE(playback.open(path));
    }

    // A playback of its own shows that nothing is left of the fault.
    static void expectWholePlayback() {
        g_device = Device::Works;
        RecordingSink sink(RecordingSink::Keep::Nothing);
        Playback playback;
        playback.player().addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&sink), 160, 90);
        ASSERT_TRUE(playback.open(mediaPath("short.mp4")));
        EXPECT_TRUE(playback.playToEnd());
        EXPECT_EQ(playback.count(Happened::Failed), 0);
        EXPECT_GT(sink.frameCount(), 0);
    }

    RecordingSink sink_{RecordingSink::Keep::Nothing};
};

TEST_F(Faults, WithoutASoundDeviceThePictureIsShown) {
    g_device = Device::IsMissing;
    {
        Playback playback;
        open(playback, mediaPath("small.mp4"));
        ASSERT_TRUE(playback.player().play());
        EXPECT_TRUE(sink_.waitForFrames(5, kWaitMs));
        EXPECT_TRUE(playback.player().pause());
        EXPECT_TRUE(playback.player().resume());
        EXPECT_TRUE(playback.player().seek(1500));
        EXPECT_TRUE(playback.player().stop());
    }
    expectWholePlayback();
}

// The sound goes on in silence where that is asked for: small.mp4 with all of its pictures, at its pace.
class Silence : public Faults {
protected:
    void open(Playback& playback, SyncMasterMode mode) {
        playback.player().setOption("no_sound_device", "silence");
        Faults::open(playback, mediaPath("small.mp4"), mode);
    }

    void expectWholeFilmInTime(Playback& playback) {
        ASSERT_TRUE(playback.waitFor(Happened::Completed, kWaitMs));
        EXPECT_TRUE(sink_.waitForPicture(kLastPtsMs, kWaitMs));
        // A machine that is busy enough makes pictures late, which are left out.
        EXPECT_EQ(sink_.frameCount() + playback.player().getStatistics().video.late, 75);
        const int64_t tookUs =
            playback.first(Happened::Completed).atUs - playback.first(Happened::FirstVideoFrame).atUs;
        EXPECT_GT(static_cast<double>(tookUs) / 1e6, 2.7);
        EXPECT_LT(static_cast<double>(tookUs) / 1e6, 6.0);
        EXPECT_EQ(playback.count(Happened::Failed), 0);
    }
};

class SilenceByMaster : public Silence, public testing::WithParamInterface<SyncMasterMode> {};

TEST_P(SilenceByMaster, PlaysTheFilmWithoutADevice) {
    g_device = Device::IsMissing;
    LogCapture log(2);
    Playback playback;
    open(playback, GetParam());
    ASSERT_TRUE(playback.player().play());
    ASSERT_TRUE(sink_.waitForFrames(5, kWaitMs));
    EXPECT_EQ(playback.player().getStatistics().audio.output, SOUND_OUTPUT_SILENCE);
    expectWholeFilmInTime(playback);
    // The second attempt, two seconds later, has no line of its own.
    EXPECT_EQ(log.count("[SteadyAudioOutput]: there is no sound device, going on in silence\n"), 1);
    EXPECT_EQ(log.count("[SDLAudioOutput]: SDL_OpenAudioDevice failed! no device today\n"), 1);
}

INSTANTIATE_TEST_SUITE_P(Both, SilenceByMaster, testing::Values(SYNC_MASTER_CLOCK, SYNC_MASTER_AUDIO));

TEST_F(Silence, PlaysTheFilmWhileTheDeviceGoesAndComes) {
    LogCapture log(2);
    Playback playback;
    open(playback, SYNC_MASTER_AUDIO);
    ASSERT_TRUE(playback.player().play());
    ASSERT_TRUE(sink_.waitForFrames(5, kWaitMs));
    g_device = Device::FallsSilent;
    std::this_thread::sleep_for(std::chrono::milliseconds(600));
    g_device = Device::Works;
    expectWholeFilmInTime(playback);
    EXPECT_EQ(log.count("[SteadyAudioOutput]: the sound device is gone, going on in silence\n"), 1);
    EXPECT_EQ(log.count("[SteadyAudioOutput]: there is a sound device, going on with it\n"), 1);
}

TEST_F(Silence, SeeksPausesAndStopsWithoutADevice) {
    g_device = Device::IsMissing;
    Playback playback;
    open(playback, SYNC_MASTER_AUDIO);
    ASSERT_TRUE(playback.player().play());
    ASSERT_TRUE(sink_.waitForFrames(5, kWaitMs));
    EXPECT_TRUE(playback.player().pause());
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const int shown = sink_.frameCount();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_LE(sink_.frameCount(), shown + 1);
    EXPECT_TRUE(playback.player().seek(2000));
    EXPECT_TRUE(sink_.waitForPicture(2000, kWaitMs));
    EXPECT_TRUE(playback.player().resume());
    EXPECT_TRUE(playback.waitFor(Happened::Completed, kWaitMs));
    EXPECT_TRUE(playback.player().seek(0));
    EXPECT_TRUE(playback.player().stop());
}

// The test's driver has one device, for one of the players; KELP_PLAYERS=100 in the environment makes them more.
class SilenceOfMany : public Faults, public testing::WithParamInterface<Device> {};

TEST_P(SilenceOfMany, PlaysAllOfTheirFilms) {
    g_device = GetParam();
    struct One {
        RecordingSink sink{RecordingSink::Keep::Nothing};
        Playback playback;
    };
    const char* const wanted = std::getenv("KELP_PLAYERS");
    std::vector<std::unique_ptr<One>> all(wanted ? std::strtoul(wanted, nullptr, 10) : 6);
    for (auto& one : all) {
        one = std::make_unique<One>();
        KelpPlayer& player = one->playback.player();
        player.setOption("no_sound_device", "silence");
        player.addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&one->sink), 320, 180);
        player.setAVSyncMode(SYNC_MASTER_AUDIO);
        ASSERT_TRUE(one->playback.open(mediaPath("small.mp4"), kWaitMs));
    }
    for (auto& one : all) {
        ASSERT_TRUE(one->playback.player().play());
    }
    int shown = 0;
    for (auto& one : all) {
        ASSERT_TRUE(one->playback.waitFor(Happened::Completed, kWaitMs));
        EXPECT_TRUE(one->sink.waitForPicture(kLastPtsMs, kWaitMs));
        EXPECT_EQ(one->playback.count(Happened::Failed), 0);
        // What is late is left out on a machine that has too much to do.
        const VideoStatistics video = one->playback.player().getStatistics().video;
        EXPECT_EQ(video.shown + video.late, 75);
        shown += one->sink.frameCount();
    }
    std::printf("%zu players, %d pictures of %zu\n", all.size(), shown, all.size() * 75);
}

INSTANTIATE_TEST_SUITE_P(Both, SilenceOfMany, testing::Values(Device::Works, Device::IsMissing), [](const auto& test) {
    return test.param == Device::Works ? "OnOneDevice" : "WithoutADevice";
});

TEST_F(Faults, ADeviceThatVanishesHoldsUpNoCommand) {
    {
        Playback playback;
        open(playback, mediaPath("small.mp4"));
        ASSERT_TRUE(playback.player().play());
        ASSERT_TRUE(playback.waitFor(Happened::FirstAudioFrame, kWaitMs));
        ASSERT_TRUE(sink_.waitForFrames(3, kWaitMs));
        g_device = Device::FallsSilent;
        std::this_thread::sleep_for(std::chrono::milliseconds(300));  // the ring fills up
        EXPECT_TRUE(playback.player().pause());
        EXPECT_TRUE(playback.player().resume());
        EXPECT_TRUE(playback.player().seek(500));
        EXPECT_TRUE(playback.player().setVolume(0.5F));
        EXPECT_TRUE(playback.player().stop());

        // Back again, for the same player.
        g_device = Device::Works;
        ASSERT_TRUE(playback.open(mediaPath("short.mp4")));
        EXPECT_TRUE(playback.playToEnd());
    }
    expectWholePlayback();
}

TEST_F(Faults, ASinkThatBlocksForTwoSecondsIsWaitedForAndNoLonger) {
    class BlockingSink final : public ExternFrameSink {
    public:
        virtual ~BlockingSink() = default;
        void onVideoSize(int, int, int) override {}
        bool onVideoFrame(int, int64_t, uint8_t**, int*, int, int64_t) override {
            if (!blocked.exchange(true)) {
                std::this_thread::sleep_for(std::chrono::seconds(2));
            }
            ++pictures;
            return false;
        }
        std::atomic<bool> blocked{false};
        std::atomic<int> pictures{0};
    };
    BlockingSink blocking;
    Playback playback;
    playback.player().addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&blocking), 320, 180);
    open(playback, mediaPath("small.mp4"));
    EXPECT_TRUE(playback.playToEnd());
    EXPECT_EQ(playback.count(Happened::Failed), 0);
    EXPECT_GT(blocking.pictures, 3);

    // A stop at that moment waits for the sink.
    blocking.blocked = false;
    playback.player().stop();
    ASSERT_TRUE(playback.open(mediaPath("small.mp4")));
    ASSERT_TRUE(playback.player().play());
    while (!blocking.blocked) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_TRUE(playback.player().stop());
}

TEST_F(Faults, AFileCutWhileItPlaysEndsWithAnEvent) {
    const auto copy = std::filesystem::temp_directory_path() / ("kelp_cut_" + std::to_string(getpid()) + ".mp4");
    std::filesystem::copy_file(mediaPath("everyday.mp4"), copy, std::filesystem::copy_options::overwrite_existing);
    {
        Playback playback;
        open(playback, copy.string());
        ASSERT_TRUE(playback.player().play());
        ASSERT_TRUE(sink_.waitForFrames(2, kWaitMs));
        ASSERT_EQ(truncate(copy.c_str(), 100000), 0);
        // Behind what has been read already.
        EXPECT_TRUE(playback.player().seek(3000));
        for (int i = 0; i < kWaitMs / 10; ++i) {
            if (playback.count(Happened::Completed) + playback.count(Happened::Failed) > 0) {
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        EXPECT_GT(playback.count(Happened::Completed) + playback.count(Happened::Failed), 0);
        EXPECT_TRUE(playback.player().stop());
    }
    std::filesystem::remove(copy);
    expectWholePlayback();
}

class WallClock : public Faults, public testing::WithParamInterface<std::tuple<SyncMasterMode, int>> {};

TEST_P(WallClock, ThatJumpsByAnHourLeavesPlaybackRunning) {
    const auto [mode, minutes] = GetParam();
    Playback playback;
    open(playback, mediaPath("small.mp4"), mode);
    ASSERT_TRUE(playback.player().play());
    ASSERT_TRUE(sink_.waitForFrames(10, kWaitMs));
    jumpWallClock(int64_t{minutes} * 60000);
    const std::vector<ShownFrame> before = sink_.frames();
    EXPECT_TRUE(playback.waitFor(Happened::Completed, kWaitMs));
    EXPECT_EQ(playback.count(Happened::Failed), 0);
    // The last picture is never skipped.
    EXPECT_TRUE(sink_.waitForPicture(kLastPtsMs, kWaitMs));
    const auto left = static_cast<int>((kLastPtsMs - before.back().pts) / kIntervalMs);
    const int shown = sink_.frameCount() - static_cast<int>(before.size());
    std::printf("%d of the %d pictures behind the jump were shown\n", shown, left);
    // The picture has no master but itself, or one that is an hour away from it now: only the picture that is judged
    // while the clock jumps may still be too late. The sound's clock follows the jump; a machine that is busy enough
    // makes pictures late for it.
    EXPECT_GE(shown, mode == SYNC_MASTER_AUDIO ? std::min(10, left) : left - 1);
    EXPECT_TRUE(playback.player().stop());
}

INSTANTIATE_TEST_SUITE_P(Both, WallClock,
                         testing::Combine(testing::Values(SYNC_MASTER_CLOCK, SYNC_MASTER_AUDIO, SYNC_MASTER_VIDEO),
                                          testing::Values(60, -60)));

}  // namespace
}  // namespace kelp::test
