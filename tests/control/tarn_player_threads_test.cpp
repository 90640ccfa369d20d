#include <gmock/gmock.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "control/threaded_engine.h"
#include "kelp_player/sync_clock.h"
#include "kelp_player/tarn_player.h"
#include "support/log_capture.h"
#include "support/sanitizers.h"

// A managed player under several threads of the host, on an engine that has threads of its own, in real time.

namespace kelp::test {
namespace {

constexpr int kLimitMs = 60000;  // for what takes a moment; a machine under load may take it

// Checks the order in which it is told, and that nothing comes after the end.
class OrderedHost final : public TarnPlayerObserver {
public:
    void onVideoSizeUpdated(int width, int, int) override {
        enter("size");
        if (width <= load_) {
            fault("the size of load " + std::to_string(width) + " after load " + std::to_string(load_));
        }
        load_ = width;
        prepared_ = false;
        leave();
    }
    void onPrepared(bool, bool) override {
        enter("prepared");
        if (prepared_) {
            fault("prepared twice for load " + std::to_string(load_));
        }
        prepared_ = true;
        leave();
    }
    void onStarted() override {
        enter("started");
        {
            std::lock_guard lock(mutex_);
            ++starts_;
        }
        changed_.notify_all();
        leave();
    }
    void onFailed(int) override {
        enter("failed");
        leave();
    }
    void onFirstVideoFrame(int ptsMs) override { time("picture", ptsMs, 0); }
    void onFirstAudioFrame(int ptsMs) override { time("sound", ptsMs, 1); }
    void onDurationUpdated(int durationMs) override { time("duration", durationMs, 2); }
    void onCompleted() override {
        enter("completed");
        leave();
    }

    std::string faults() {
        std::lock_guard lock(mutex_);
        return faults_;
    }
    int starts() {
        std::lock_guard lock(mutex_);
        return starts_;
    }
    bool waitForStarts(int count) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, std::chrono::milliseconds(kLimitMs), [&] { return starts_ >= count; });
    }

    std::atomic<bool> ended{false};    // destroy has returned
    std::function<void()> inCallback;  // done within every callback

private:
    void enter(const char* what) {
        if (ended) {
            fault(std::string(what) + " after destroy");
        }
        if (inside_.exchange(true)) {
            fault(std::string(what) + " while another callback runs");
        }
    }
    void leave() {
        if (inCallback) {
            inCallback();
        }
        inside_ = false;
    }
    void time(const char* what, int ms, int part) {
        enter(what);
        if (ms / 1000 != load_ || ms % 1000 != part || !prepared_) {
            fault(std::string(what) + " " + std::to_string(ms) + " after load " + std::to_string(load_));
        }
        leave();
    }
    void fault(const std::string& text) {
        std::lock_guard lock(mutex_);
        faults_ += text + "\n";
    }

    std::atomic<bool> inside_{false};
    int load_ = 0;  // touched by the worker only
    bool prepared_ = false;
    std::mutex mutex_;  // guards what follows
    std::condition_variable changed_;
    std::string faults_;
    int starts_ = 0;
};

class StillClock final : public KelpSyncClock {
public:
    int64_t getNoSyncThreshold() override { return 10000; }
    bool isForceSync() override { return true; }
    int64_t getSyncPts() override { return 100; }
};

class TarnPlayerThreads : public testing::Test {
protected:
    TarnPlayerThreads() : log_(1) {
        auto& engine = ThreadedEngine::get();
        for (auto* rate :
             {&engine.loadFailures, &engine.refusals, &engine.streamFailures, &engine.decoderFailures, &engine.ends}) {
            *rate = 0;
        }
    }
    ~TarnPlayerThreads() override {
        EXPECT_EQ(ThreadedEngine::get().faults(), "");
        EXPECT_FALSE(ThreadedEngine::get().loaded) << "the engine was left with a source";
    }

    void everythingFailsAtTimes() {
        auto& engine = ThreadedEngine::get();
        engine.loadFailures = 200;
        engine.refusals = 50;
        engine.streamFailures = 50;
        engine.decoderFailures = 50;
        engine.ends = 50;
    }

    // One call, any but destroy. No clock is moved, which is for one control thread.
    void callSomething(TarnPlayer& player, OrderedHost& host, int which) {
        switch (which % 24) {
            case 0:
                player.setDataSource("source", 0, &host);
                break;
            case 1:
            case 2:
            case 3:
                player.prepareAsync();
                break;
            case 4:
            case 5:
            case 6:
                player.start();
                break;
            case 7:
                player.pause();
                break;
            case 8:
                player.resume();
                break;
            case 9:
                player.seek(which);
                break;
            case 10:
                player.stop();
                break;
            case 11:
                player.reset();
                break;
            case 12:
                player.getCurrentTime();
                break;
            case 13:
                player.getDuration();
                break;
            case 14:
                player.getPlayDetailInfo(INFO_DURATION);
                break;
            case 15:
                player.setVolume(0.5F);
                break;
            case 16:
                player.setSpeed(1.5F);
                break;
            case 17:
                player.addWindow(&host, WINDOW_TYPE_SDL, 1, 1);
                break;
            case 18:
                player.removeWindow(&host);
                break;
            case 19:
                player.enableHwDecoder(true, HW_DECODE_ALL);
                break;
            case 20:
                player.setSyncClock(which % 48 < 24 ? &clock_ : nullptr);
                break;
            case 21:
                player.setOption("retry_when_failed", which % 48 < 24 ? "1" : "0");
                break;
            case 22:
                player.runInWorker([] {});
                break;
            case 23:
                player.removeTimer(player.addTimer(1000, true, [] {}));
                break;
        }
    }

    LogCapture log_;  // keeps the refusals off the output
    StillClock clock_;
};

TEST_F(TarnPlayerThreads, TakeCallsFromFourAtOnce) {
    everythingFailsAtTimes();
    OrderedHost host;
    TarnPlayer* player = TarnPlayer::create();
    std::mt19937 callbackGenerator{7};
    host.inCallback = [&] { callSomething(*player, host, static_cast<int>(callbackGenerator() % 4800)); };
    player->setDataSource("source", 0, &host);
    player->setOption("retry_when_failed", "1");
    player->prepareAsync();
    player->start();
    std::vector<std::thread> threads;
    for (unsigned int number = 1; number <= 4; ++number) {
        threads.emplace_back([&, number] {
            std::mt19937 generator{number};
            for (int i = 0; i < (KELP_THREAD_SANITIZER ? 400 : 2000); ++i) {
                callSomething(*player, host, static_cast<int>(generator() % 4800));
                if (generator() % 4 == 0) {
                    std::this_thread::sleep_for(std::chrono::microseconds(generator() % 500));
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    // Whatever was called: from here on it does what it is asked.
    player->runInWorker([&] { host.inCallback = nullptr; });
    for (auto* rate :
         {&ThreadedEngine::get().loadFailures, &ThreadedEngine::get().refusals, &ThreadedEngine::get().streamFailures,
          &ThreadedEngine::get().decoderFailures, &ThreadedEngine::get().ends}) {
        *rate = 0;
    }
    player->setOption("retry_when_failed", "0");
    std::mutex mutex;
    std::condition_variable changed;
    bool through = false;
    player->stop();
    player->runInWorker([&] {
        std::lock_guard lock(mutex);
        through = true;
        changed.notify_all();
    });
    {
        std::unique_lock lock(mutex);
        ASSERT_TRUE(changed.wait_for(lock, std::chrono::milliseconds(kLimitMs), [&] { return through; }));
    }
    player->stop();
    player->reset();
    const int starts = host.starts();
    EXPECT_TRUE(player->setDataSource("source", 0, &host));
    EXPECT_TRUE(player->prepareAsync());
    EXPECT_TRUE(player->start());
    EXPECT_TRUE(host.waitForStarts(starts + 1));
    player->stop();
    TarnPlayer::destroy(player);
    host.ended = true;
    EXPECT_EQ(host.faults(), "");
}

// The start may come before, while and after the source becomes ready.
TEST_F(TarnPlayerThreads, LoseNoStart) {
    OrderedHost host;
    TarnPlayer* player = TarnPlayer::create();
    ASSERT_TRUE(player->setDataSource("source", 0, &host));
    std::mt19937 generator{3};
    for (int round = 1; round <= (KELP_THREAD_SANITIZER ? 200 : 600); ++round) {
        ASSERT_TRUE(player->prepareAsync());
        std::this_thread::sleep_for(std::chrono::microseconds(generator() % 1600));
        ASSERT_TRUE(player->start());
        ASSERT_TRUE(host.waitForStarts(round));
        ASSERT_TRUE(player->stop());
    }
    TarnPlayer::destroy(player);
    host.ended = true;
    EXPECT_EQ(host.faults(), "");
}

// The end of what plays, or its failure, comes at the moment at which the host goes on to the next.
TEST_F(TarnPlayerThreads, LoseNoStartToTheEndOfTheSourceBefore) {
    ThreadedEngine::get().ends = 300;
    ThreadedEngine::get().decoderFailures = 50;
    OrderedHost host;
    TarnPlayer* player = TarnPlayer::create();
    ASSERT_TRUE(player->setDataSource("source", 0, &host));
    std::mt19937 generator{5};
    for (int round = 0; round < (KELP_THREAD_SANITIZER ? 100 : 400); ++round) {
        player->stop();
        // An end that was on its way when the player was stopped moves its state; another stop takes it back.
        while (!player->prepareAsync()) {
            player->stop();
        }
        const int starts = host.starts();
        player->start();
        ASSERT_TRUE(host.waitForStarts(starts + 1)) << "round " << round;
        std::this_thread::sleep_for(std::chrono::microseconds(generator() % 2000));
    }
    TarnPlayer::destroy(player);
    host.ended = true;
    EXPECT_EQ(host.faults(), "");
}

// Right after every operation, with the source anywhere on its way.
TEST_F(TarnPlayerThreads, HearNothingAfterDestroy) {
    std::mt19937 generator{11};
    const std::vector<std::function<void(TarnPlayer&, OrderedHost&)>> ways = {
        [](auto&, auto&) {},
        [](auto& p, auto& h) { p.setDataSource("source", 0, &h); },
        [](auto& p, auto&) { p.prepareAsync(); },
        [](auto& p, auto&) { p.start(); },
        [](auto& p, auto&) { p.pause(); },
        [](auto& p, auto&) { p.resume(); },
        [](auto& p, auto&) { p.seek(3000); },
        [](auto& p, auto&) { p.stop(); },
        [](auto& p, auto&) { p.prepareAsync(); },
        [](auto& p, auto&) { p.reset(); },
    };
    const int rounds = KELP_THREAD_SANITIZER ? 10 : 30;
    for (size_t length = 1; length <= ways.size(); ++length) {
        for (int round = 0; round < rounds; ++round) {
            // At times what runs fails, and is retried or falls back.
            if (round % 3 == 2) {
                everythingFailsAtTimes();
            }
            OrderedHost host;
            TarnPlayer* player = TarnPlayer::create();
            player->setOption("retry_when_failed", "1");
            for (size_t i = 0; i < length; ++i) {
                ways[i](*player, host);
                if (round % 2 == 1) {
                    std::this_thread::sleep_for(std::chrono::microseconds(generator() % 1500));
                }
            }
            TarnPlayer::destroy(player);
            host.ended = true;
            if (round % 10 == 0) {
                std::this_thread::sleep_for(std::chrono::milliseconds(2));
            }
            ASSERT_EQ(host.faults(), "") << "after " << length << " operations";
            ASSERT_FALSE(ThreadedEngine::get().loaded) << "after " << length << " operations";
        }
    }
}

}  // namespace
}  // namespace kelp::test
