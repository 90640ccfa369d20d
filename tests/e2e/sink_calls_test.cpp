// A frame sink may call what frame_sink.h says, whatever the control side does at the same moment.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "e2e/media.h"
#include "e2e/playback.h"
#include "kelp_player/kelp_player.h"
#include "kelp_player/tarn_player.h"

namespace kelp::test {
namespace {

constexpr int kRounds = 3;

// Calls the player at each picture.
template <class Player>
class CallingSink final : public ExternFrameSink {
public:
    void onVideoSize(int, int, int) override {}
    bool onVideoFrame(int, int64_t, uint8_t**, int*, int, int64_t) override {
        if (Player* player = player_) {
            call(*player);
            ++calls_;
        }
        return true;
    }

    std::atomic<Player*> player_{nullptr};
    std::atomic<int> calls_{0};
    std::atomic<int> posted_{0};
    std::atomic<int> ran_{0};

private:
    void call(KelpPlayer& player) {
        player.getCurrentTime();
        player.getDuration();
        player.getPlayDetailInfo(INFO_ROTATE);
        player.clearScreen();
        callWorker(player);
    }
    void call(TarnPlayer& player) { callWorker(player); }

    void callWorker(Player& player) {
        player.removeTimer(player.addTimer(100000, /*oneShot=*/true, [] {}));
        player.runInWorker([this] { ++ran_; });
        ++posted_;
    }
};

// Waits until `sink` has called its player again; false after 20 s.
template <class Player>
bool waitForCalls(CallingSink<Player>& sink) {
    const int before = sink.calls_;
    for (int i = 0; i < 2000; ++i) {
        if (sink.calls_ > before) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

// What the control side does meanwhile.
template <class Player>
void disturb(Player& player, CallingSink<Player>& sink) {
    sink.player_ = &player;
    EXPECT_TRUE(waitForCalls(sink));
    for (int i = 0; i < kRounds; ++i) {
        player.seek(i % 2 == 0 ? 2000 : 100);
        player.pause();
        EXPECT_TRUE(waitForCalls(sink));
        player.setSpeed(i % 2 == 0 ? 2.0F : 1.0F);
        player.resume();
        EXPECT_TRUE(waitForCalls(sink));
    }
    player.stop();
}

TEST(SinkCalls, OfAPlayerReturnWhateverTheControlSideDoes) {
    CallingSink<KelpPlayer> sink;
    {
        Playback playback;
        playback.player().addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&sink), 0, 0);
        for (int round = 0; round < kRounds; ++round) {
            ASSERT_TRUE(playback.open(mediaPath("small.mp4")));
            ASSERT_TRUE(playback.player().play());
            disturb(playback.player(), sink);
        }
    }
    EXPECT_GE(sink.calls_, 2 * kRounds * kRounds);
    EXPECT_EQ(sink.ran_, sink.posted_);
}

TEST(SinkCalls, OfAManagedPlayerReturnWhateverTheControlSideDoes) {
    CallingSink<TarnPlayer> sink;
    TarnPlayer* player = TarnPlayer::create();
    player->addWindow(static_cast<ExternFrameSink*>(&sink), WINDOW_TYPE_EXTERN, 0, 0);
    ASSERT_TRUE(player->setDataSource(mediaPath("small.mp4").c_str(), 0, nullptr));
    for (int round = 0; round < kRounds; ++round) {
        ASSERT_TRUE(player->prepareAsync());
        ASSERT_TRUE(player->start());
        disturb(*player, sink);
    }
    TarnPlayer::destroy(player);
    EXPECT_GE(sink.calls_, 2 * kRounds * kRounds);
    EXPECT_EQ(sink.ran_, sink.posted_);
}

}  // namespace
}  // namespace kelp::test
