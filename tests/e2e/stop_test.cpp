// A stop returns soon, in every phase of a playback, however often.

#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <thread>

#include "e2e/media.h"
#include "e2e/playback.h"
#include "e2e/recording_sink.h"
#include "e2e/silent_server.h"

namespace kelp::test {
namespace {

// How long a stop may take here. On an idle machine it is far below; this machine may be busy with other tests, and
// the benchmark, not this test, says how long it takes.
constexpr int64_t kStopLimitMs = 5000;

void pauseFor(int ms) {
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

// Runs `reachPhase` on a player and then stops it, KELP_STOP_ROUNDS times. A new player is made every 50 rounds.
void stopOften(const std::function<void(Playback&, int round)>& reachPhase) {
    int64_t longestUs = 0;
    int64_t sumUs = 0;
    RecordingSink sink(RecordingSink::Keep::Nothing);
    std::unique_ptr<Playback> playback;
    for (int round = 0; round < KELP_STOP_ROUNDS; ++round) {
        if (round % 50 == 0) {
            playback = std::make_unique<Playback>();
            playback->player().setAVSyncMode(SYNC_MASTER_AUDIO);
            playback->player().addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&sink), 0, 0);
        }
        reachPhase(*playback, round);
        if (testing::Test::HasFatalFailure()) {
            return;
        }
        const int64_t begin = steadyUs();
        EXPECT_TRUE(playback->player().stop());
        const int64_t took = steadyUs() - begin;
        ASSERT_LT(took, kStopLimitMs * 1000) << "round " << round;
        longestUs = std::max(longestUs, took);
        sumUs += took;
    }
    testing::Test::RecordProperty("longest_stop_ms", std::to_string(longestUs / 1000));
    std::printf("stops: %d, mean %lld ms, longest %lld ms\n", KELP_STOP_ROUNDS,
                static_cast<long long>(sumUs / KELP_STOP_ROUNDS / 1000), static_cast<long long>(longestUs / 1000));
}

TEST(Stop, ReturnsWhileASourceThatDoesNotAnswerIsOpened) {
    SilentServer server;
    stopOften([&](Playback& playback, int round) {
        const int before = server.accepted();
        ASSERT_TRUE(playback.player().loadFileAsync(server.url().c_str(), 0));
        // In some rounds before the connection stands, in most after.
        for (int i = 0; round % 4 != 0 && server.accepted() == before && i < 2000; ++i) {
            pauseFor(1);
        }
    });
}

TEST(Stop, ReturnsBeforePlay) {
    const std::string path = mediaPath("short.mp4");
    stopOften([&](Playback& playback, int round) {
        if (round % 2 == 0) {
            ASSERT_TRUE(playback.open(path));
        } else {
            // While the file is opened, at one moment or another.
            ASSERT_TRUE(playback.player().loadFileAsync(path.c_str(), 0));
            std::this_thread::sleep_for(std::chrono::microseconds(round % 16 * 300));
        }
    });
}

TEST(Stop, ReturnsBeforeTheFirstFrame) {
    const std::string path = mediaPath("short.mp4");
    stopOften([&](Playback& playback, int round) {
        ASSERT_TRUE(playback.open(path));
        ASSERT_TRUE(playback.player().play());
        std::this_thread::sleep_for(std::chrono::microseconds(round % 20 * 500));
    });
}

TEST(Stop, ReturnsWhilePlaying) {
    const std::string path = mediaPath("small.mp4");
    stopOften([&](Playback& playback, int round) {
        ASSERT_TRUE(playback.open(path));
        const int frames = playback.count(Happened::FirstVideoFrame);
        ASSERT_TRUE(playback.player().play());
        ASSERT_TRUE(playback.waitFor(Happened::FirstVideoFrame, 20000, frames + 1));
        pauseFor(round % 10 * 10);
    });
}

TEST(Stop, ReturnsWhilePaused) {
    const std::string path = mediaPath("small.mp4");
    stopOften([&](Playback& playback, int round) {
        ASSERT_TRUE(playback.open(path));
        const int frames = playback.count(Happened::FirstAudioFrame);
        ASSERT_TRUE(playback.player().play());
        ASSERT_TRUE(playback.waitFor(Happened::FirstAudioFrame, 20000, frames + 1));
        pauseFor(round % 7 * 5);
        playback.player().pause();
        pauseFor(round % 5 * 10);
    });
}

TEST(Stop, ReturnsWhileWaitingAtTheEnd) {
    const std::string path = mediaPath("short.mp4");
    stopOften([&](Playback& playback, int round) {
        ASSERT_TRUE(playback.open(path));
        const int ends = playback.count(Happened::DurationUpdated);
        ASSERT_TRUE(playback.player().play());
        ASSERT_TRUE(playback.waitFor(Happened::DurationUpdated, 20000, ends + 1));
        pauseFor(round % 4 * 20);
        if (round % 2 == 0) {
            playback.player().pause();
        }
    });
}

}  // namespace
}  // namespace kelp::test
