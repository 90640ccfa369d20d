// A play thread in real time beside threads that seek and stop it at any moment: nothing is lost, nothing hangs.

#include <atomic>
#include <chrono>
#include <thread>

#include "present/base_play_thread_fixture.h"
#include "support/log_capture.h"

namespace kelp::test {
namespace {

using testing::ElementsAre;

// Counts what a seek needs to be served. The play thread writes, the test waits.
class SeekRecord {
public:
    explicit SeekRecord(RecordingPlayThread& thread) {
        thread.seekStart = [this](int target) {
            odd_ = odd_ || target <= started_;
            started_ = target;
        };
        thread.seekFinish = [this](int pts) {
            odd_ = odd_ || pts < started_ || finished_ == started_;
            // Time for another seek to come before this one is over.
            std::this_thread::yield();
            std::this_thread::yield();
            finished_ = started_.load();
        };
    }

    // Waits in real time until the seek to `target` was started and then finished.
    bool waitForServed(int target) {
        const auto deadline = std::chrono::steady_clock::now() + RecordingPlayThread::kPatience;
        while (finished_ != target && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::yield();
        }
        return finished_ == target;
    }

    // A start that was not asked for or out of order, or a finish without its start.
    bool odd() const { return odd_; }

private:
    std::atomic<int> started_{0};
    std::atomic<int> finished_{0};
    std::atomic<bool> odd_{false};
};

// No interleaving loses a seek, while another thread fills without a pause.
TEST_F(BasePlayThreadTest, ServesThousandsOfSeeksToFramesThatAreStillToCome) {
    RecordingPlayThread thread;
    SeekRecord record(thread);
    thread.start();
    std::atomic<int> position{0};
    std::atomic<bool> filling{true};
    std::thread filler([&] {
        while (filling) {
            // A frame of the old position may come in after the flush, as from a decoder that is just handing it on.
            const int base = position;
            for (int i = 0; i < 3 && thread.getFrameQueueSize() < 20; ++i) {
                thread.fillFrame(makePlayFrame(base + i, 1));
            }
            std::this_thread::yield();
        }
    });
    bool served = true;
    for (int target = 1000; served && target <= 3'000'000; target += 1000) {
        thread.seek(target, /*needFlush=*/target % 2000 == 0);
        position = target;
        served = record.waitForServed(target);
        EXPECT_TRUE(served) << "lost: " << target;
    }
    filling = false;
    filler.join();
    thread.stop();
    EXPECT_FALSE(record.odd());
}

TEST_F(BasePlayThreadTest, ServesTheLastOfSeeksThatOvertakeEachOther) {
    RecordingPlayThread thread;
    SeekRecord record(thread);
    thread.start();
    std::atomic<bool> filling{true};
    std::thread filler([&] {
        while (filling) {
            // The target of any seek: each finishes as soon as it can.
            if (thread.getFrameQueueSize() < 20) {
                thread.fillFrame(makePlayFrame(1'000'000'000, 1));
            }
            std::this_thread::yield();
        }
    });
    bool served = true;
    for (int target = 10; served && target <= 30'000; target += 10) {
        for (int i = 3; i >= 0; --i) {
            thread.seek(target - i, /*needFlush=*/target % 20 == 0);
        }
        served = record.waitForServed(target);
        EXPECT_TRUE(served) << "lost: " << target;
    }
    filling = false;
    filler.join();
    thread.stop();
    EXPECT_FALSE(record.odd());
}

TEST_F(BasePlayThreadTest, AStopBeforeTheWaitIsSeenAtOnce) {
    RecordingPlayThread thread;
    LogCapture log;
    thread.seekStart = [&](int) {
        // The wake-up has gone out, and the loop is still ahead of its wait.
        while (!log.has("] joinThread\n")) {
            std::this_thread::yield();
        }
    };
    thread.seek(0, /*needFlush=*/false);
    thread.start();
    ASSERT_TRUE(thread.waitFor("start 0"));
    thread.stop();
    EXPECT_THAT(thread.events(/*withIdle=*/true), ElementsAre("start 0", "exit"));
}

TEST_F(BasePlayThreadTest, StopsAtAnyMoment) {
    constexpr int kRuns = 1000;
    int slow = 0;
    for (int i = 0; i < kRuns; ++i) {
        RecordingPlayThread thread;
        thread.start();
        for (int spin = 0; spin < i % 50; ++spin) {
            std::this_thread::yield();
        }
        if (i % 4 == 0) {
            thread.fillFrame(makePlayFrame(0));
        }
        const auto begin = std::chrono::steady_clock::now();
        thread.stop();
        slow += std::chrono::steady_clock::now() - begin >= std::chrono::milliseconds(40) ? 1 : 0;
        ASSERT_EQ(thread.events().back(), "exit");
    }
    // One that had to wait for the end of the timed wait would take 50 ms; on a busy machine some do.
    EXPECT_LT(slow, kRuns / 2);
}

}  // namespace
}  // namespace kelp::test
