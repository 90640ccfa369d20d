// How a player ends: `release` from anywhere, its last reference that goes anywhere, and what is still delivered.

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "control/kelp_player_fixture.h"

namespace kelp::test {
namespace {

using testing::IsEmpty;

TEST_F(KelpPlayerTest, DropsEventsOfADeadPlayer) {
    init();
    const auto orphan = task();
    const auto worker = KelpPlayerPeer::worker(*player);
    const std::weak_ptr<KelpPlayer> gone = player;

    // One is queued when the last reference goes. The worker is held up until then.
    std::mutex gate;
    gate.lock();
    player->runInWorker([&] { std::lock_guard wait(gate); });
    raise(EVENT_COMPLETED, 0, 0, 0);
    std::thread dropper([last = std::move(player)]() mutable { last.reset(); });
    ASSERT_TRUE(waitUntil([&] { return gone.expired(); }));
    // The other one comes after it.
    PlayTaskPeer(*orphan).raise(EVENT_COMPLETED, 0, 0, 0);
    gate.unlock();
    dropper.join();
    EXPECT_THAT(recorder.events(), IsEmpty());
    EXPECT_EQ(threadsNamed("Worker"), 0);
    EXPECT_EQ(threadsNamed("WorkerTimer"), 0);
}

// The worker's thread can't wait for itself. Its threads end nevertheless, and nothing of the player is left.
class KelpPlayerLastReference : public KelpPlayerTest {
protected:
    void expectGone(const std::weak_ptr<KelpPlayer>& gone) {
        EXPECT_TRUE(waitUntil([&] { return gone.expired(); }));
        EXPECT_TRUE(waitUntil([] { return threadsNamed("Worker") == 0 && threadsNamed("WorkerTimer") == 0; }));
    }
};

TEST_F(KelpPlayerLastReference, MayGoInAnObserver) {
    init();
    const std::weak_ptr<KelpPlayer> gone = player;
    std::atomic<bool> dropped{false};
    recorder.then = [&](const auto&, const std::string&) {
        player.reset();
        dropped = true;
    };
    raise(EVENT_COMPLETED, 0, 0, 0);
    ASSERT_TRUE(waitUntil([&] { return dropped.load(); }));
    expectGone(gone);
}

TEST_F(KelpPlayerLastReference, MayGoElsewhereDuringAnObserver) {
    init();
    const std::weak_ptr<KelpPlayer> gone = player;
    std::atomic<bool> entered{false};
    std::mutex gate;
    gate.lock();
    recorder.then = [&](const auto&, const std::string&) {
        entered = true;
        std::lock_guard wait(gate);
    };
    raise(EVENT_COMPLETED, 0, 0, 0);
    ASSERT_TRUE(waitUntil([&] { return entered.load(); }));
    player.reset();
    gate.unlock();
    expectGone(gone);
}

TEST_F(KelpPlayerLastReference, MayGoWithACallable) {
    init();
    const std::weak_ptr<KelpPlayer> gone = player;
    auto* const raw = player.get();
    std::mutex gate;
    gate.lock();
    raw->runInWorker([&gate, last = std::move(player)] { std::lock_guard wait(gate); });
    gate.unlock();
    expectGone(gone);
}

TEST_F(KelpPlayerLastReference, MayGoInATimer) {
    init();
    const std::weak_ptr<KelpPlayer> gone = player;
    const auto last = std::make_shared<std::shared_ptr<KelpPlayer>>(player);
    player.reset();
    (*last)->addTimer(1, /*oneShot=*/true, [last] { last->reset(); });
    expectGone(gone);
}

// What a removed timer holds dies on the thread that looks after the timers.
TEST_F(KelpPlayerLastReference, MayGoWithARemovedTimer) {
    init();
    const std::weak_ptr<KelpPlayer> gone = player;
    const unsigned int id = player->addTimer(1'000'000, /*oneShot=*/true, [last = player] { ADD_FAILURE(); });
    // By now the timer is among those that are watched.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    player->removeTimer(id);
    player.reset();
    expectGone(gone);
}

TEST_F(KelpPlayerLastReference, IsNoneOfReleaseOnTheWorker) {
    init();
    std::atomic<int> calls{0};
    recorder.then = [&](const auto& owner, const std::string&) {
        owner->release();
        ++calls;
    };
    raise(EVENT_COMPLETED, 0, 0, 0);
    ASSERT_TRUE(waitUntil([&] { return calls == 1; }));
    EXPECT_TRUE(waitUntil([] { return threadsNamed("Worker") == 0 && threadsNamed("WorkerTimer") == 0; }));
    raise(EVENT_COMPLETED, 0, 0, 0);
    EXPECT_EQ(calls, 1);
}

// A timer holds the player, and is dropped on the thread that ends the worker.
TEST_F(KelpPlayerLastReference, MayGoWithATimerThatAReleaseInACallableDrops) {
    init();
    const std::weak_ptr<KelpPlayer> gone = player;
    auto* const raw = player.get();
    player->addTimer(1'000'000, /*oneShot=*/true, [last = player] { ADD_FAILURE(); });
    player.reset();
    raw->runInWorker([raw] { raw->release(); });
    expectGone(gone);
}

// The process ends while the callable that dropped its player still runs, and waits for it.
TEST_F(KelpPlayerLastReference, IsWaitedForByTheEndOfTheProcess) {
    EXPECT_EXIT(
        {
            init();
            std::atomic<bool> dropped{false};
            auto* const raw = player.get();
            raw->runInWorker([&, last = std::move(player)]() mutable {
                last.reset();
                dropped = true;
                std::this_thread::sleep_for(std::chrono::milliseconds(200));  // longer than an exit takes
                std::fputs("through\n", stderr);
            });
            CHILD_EXPECT(waitUntil([&] { return dropped.load(); }));
            std::exit(0);
        },
        testing::ExitedWithCode(0), "through");
}

TEST_F(KelpPlayerTest, WaitsForTheEndThatAReleaseInACallbackHasBegun) {
    init();
    std::atomic<bool> released{false};
    std::atomic<bool> through{false};
    recorder.then = [&](const auto& owner, const std::string&) {
        owner->release();
        released = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));  // while the others wait
        through = true;
    };
    raise(EVENT_COMPLETED, 0, 0, 0);
    ASSERT_TRUE(waitUntil([&] { return released.load(); }));
    std::thread other([&] {
        player->release();
        EXPECT_TRUE(through);
    });
    player->release();
    EXPECT_TRUE(through);
    other.join();
}

TEST_F(KelpPlayerTest, ReleasesOnSeveralThreadsAtOnce) {
    init();
    std::atomic<bool> through{false};
    player->runInWorker([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        through = true;
    });
    std::vector<std::thread> others;
    for (int i = 0; i < 3; ++i) {
        others.emplace_back([&] {
            player->release();
            EXPECT_TRUE(through);
        });
    }
    for (auto& other : others) {
        other.join();
    }
}

TEST_F(KelpPlayerTest, ReleasesAPlayerThatWasNeverInitialisedWithACallableQueued) {
    bool ran = false;
    auto unused = std::make_shared<KelpPlayer>();
    unused->runInWorker([&ran] { ran = true; });
    unused->release();
    unused.reset();
    EXPECT_FALSE(ran);
}

TEST_F(KelpPlayerTest, ReleasesAnyNumberOfTimes) {
    init();
    std::atomic<int> ran{0};
    for (int i = 0; i < 10; ++i) {
        player->runInWorker([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));  // so that the queue isn't empty at once
            ++ran;
        });
    }
    player->addTimer(1, /*oneShot=*/false, [] {});
    player->release();
    EXPECT_EQ(ran, 10);
    EXPECT_EQ(threadsNamed("Worker"), 0);
    // What comes now is never run and must not be waited for, neither here nor by the destructor.
    player->runInWorker([&] { ++ran; });
    raise(EVENT_COMPLETED, 0, 0, 0);
    player->release();
    player.reset();
    EXPECT_EQ(ran, 10);
    EXPECT_THAT(recorder.events(), IsEmpty());
}

}  // namespace
}  // namespace kelp::test
