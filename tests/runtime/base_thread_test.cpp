#include "runtime/base_thread.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <system_error>

#include "kelp_player/log.h"
#include "support/fake_time.h"
#include "support/gate.h"
#include "support/log_capture.h"
#include "support/sanitizers.h"

namespace kelp {
namespace {

using test::FakeTime;
using test::Gate;
using test::LogCapture;

// Runs a function of the test as its body.
class TestThread : public BaseThread {
public:
    TestThread(std::string name, std::function<void(TestThread&)> body)
        : BaseThread(std::move(name)), body_(std::move(body)) {}
    ~TestThread() override {
        requestStop();
        joinThread();
    }

    using BaseThread::endRest;
    using BaseThread::rest;

private:
    void Run() override { body_(*this); }

    std::function<void(TestThread&)> body_;
};

std::string ownThreadName() {
    char name[16] = {};
    pthread_getname_np(pthread_self(), name, sizeof(name));
    return name;
}

TEST(BaseThread, RunsItsBodyOnAThreadOfItsOwn) {
    std::thread::id id;
    TestThread thread("Stage", [&](TestThread&) { id = std::this_thread::get_id(); });
    EXPECT_TRUE(thread.startThread());
    EXPECT_TRUE(thread.joinThread());
    EXPECT_NE(id, std::thread::id());
    EXPECT_NE(id, std::this_thread::get_id());
}

TEST(BaseThread, JoinsAtOnceWithoutAThread) {
    LogCapture log;
    TestThread thread("Stage", [](TestThread&) {});
    EXPECT_TRUE(thread.joinThread());
    EXPECT_TRUE(thread.joinThread());
    EXPECT_EQ(log.count("[BaseThread]: [Stage] joinThread\n"), 2);
    EXPECT_EQ(log.count("[BaseThread]: [Stage] joinThread end\n"), 2);
}

TEST(BaseThread, LogsEachStepButTheWithdrawalOfAStop) {
    LogCapture log;
    TestThread thread("Stage", [](TestThread&) {});
    thread.startThread();
    thread.requestStop();
    thread.joinThread();
    thread.resetStopRequest();
    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                               "[BaseThread]: [Stage] startThread\n", "[BaseThread]: [Stage] requestStop\n",
                               "[BaseThread]: [Stage] joinThread\n", "[BaseThread]: [Stage] joinThread end\n"}));
}

TEST(BaseThread, LogsAtDebugLevelOnly) {
    LogCapture log(3);
    TestThread thread("Stage", [](TestThread&) {});
    thread.startThread();
    thread.requestStop();
    thread.joinThread();
    EXPECT_TRUE(log.lines().empty());
}

TEST(BaseThread, RunsUntilItIsAskedToStop) {
    Gate running;
    TestThread thread("Stage", [&](TestThread& self) {
        running.open();
        while (!self.isStopRequested()) {
            std::this_thread::yield();
        }
    });
    thread.startThread();
    running.wait();
    EXPECT_FALSE(thread.isStopRequested());
    thread.requestStop();
    EXPECT_TRUE(thread.joinThread());
}

TEST(BaseThread, KeepsAStopRequestOverAJoin) {
    TestThread thread("Stage", [](TestThread&) {});
    thread.startThread();
    thread.requestStop();
    thread.joinThread();
    EXPECT_TRUE(thread.isStopRequested());
    thread.resetStopRequest();
    EXPECT_FALSE(thread.isStopRequested());
}

TEST(BaseThread, SeesAnOldStopRequestAtItsFirstPoll) {
    bool stopAtFirstPoll = false;
    TestThread thread("Stage", [&](TestThread& self) { stopAtFirstPoll = self.isStopRequested(); });
    thread.requestStop();
    thread.startThread();
    thread.joinThread();
    EXPECT_TRUE(stopAtFirstPoll);
}

TEST(BaseThread, StartsAgainAfterAJoin) {
    int runs = 0;
    bool stopped = true;
    TestThread thread("Stage", [&](TestThread& self) {
        ++runs;
        stopped = self.isStopRequested();
    });
    thread.startThread();
    thread.requestStop();
    thread.joinThread();
    thread.resetStopRequest();
    EXPECT_TRUE(thread.startThread());
    thread.joinThread();
    EXPECT_EQ(runs, 2);
    EXPECT_FALSE(stopped);
}

TEST(BaseThread, IsStoppedAndJoinedByItsDestructor) {
    // Without a destructor of its own; its thread has returned, so that nothing is dispatched to it any more.
    class BareThread : public BaseThread {
    public:
        explicit BareThread(Gate& done) : BaseThread("Bare"), done_(done) {}

    private:
        void Run() override { done_.open(); }
        Gate& done_;
    };
    LogCapture log;
    Gate done;
    {
        BareThread thread(done);
        thread.startThread();
        done.wait();
    }
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{"[BaseThread]: [Bare] startThread\n", "[BaseThread]: [Bare] requestStop\n",
                                        "[BaseThread]: [Bare] joinThread\n", "[BaseThread]: [Bare] joinThread end\n"}));
}

TEST(BaseThread, LogsNothingWhenItDiesWithoutAThread) {
    class IdleThread : public BaseThread {
    public:
        IdleThread() : BaseThread("Idle") {}

    private:
        void Run() override {}
    };
    LogCapture log;
    { IdleThread thread; }
    EXPECT_TRUE(log.lines().empty());
}

TEST(BaseThread, RefusesToJoinItself) {
    if (KELP_THREAD_SANITIZER) {
        GTEST_SKIP() << "the thread sanitizer doesn't stand a thread that joins itself";
    }
    Gate started;
    std::error_code code;
    TestThread thread("Stage", [&](TestThread& self) {
        started.wait();
        try {
            self.joinThread();
        } catch (const std::system_error& error) {
            code = error.code();
        }
    });
    thread.startThread();
    started.open();
    thread.joinThread();
    EXPECT_EQ(code, std::errc::resource_deadlock_would_occur);
}

TEST(BaseThreadDeathTest, EndsTheProcessWhenStartedOverAnUnjoinedThread) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            TestThread thread("Stage", [](TestThread&) {});
            thread.startThread();
            thread.startThread();
        },
        "terminate called");
}

TEST(BaseThread, SleepsThroughTheTimeClass) {
    FakeTime::reset();
    BaseThread::sleepMilliSeconds(7);
    BaseThread::sleepSeconds(3);
    EXPECT_EQ(FakeTime::sleeps(), (std::vector<int>{7, 3000}));
}

TEST(BaseThread, AStopEndsARestAndLetsNoneBegin) {
    FakeTime::reset();
    FakeTime::setManual(true);
    TestThread thread("Stage", [&](TestThread& self) {
        self.rest(20);
        self.rest(30, [] { return false; });
    });
    thread.startThread();
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    thread.endRest();
    EXPECT_TRUE(FakeTime::waitForSleepers(1, 0));
    thread.requestStop();
    thread.joinThread();
    EXPECT_EQ(FakeTime::sleeps(), (std::vector<int>{20}));
    FakeTime::reset();
}

TEST(BaseThread, ARestEndsForWhatIsWanted) {
    FakeTime::reset();
    FakeTime::setManual(true);
    std::atomic<bool> wanted{false};
    TestThread thread("Stage", [&](TestThread& self) { self.rest(20, [&] { return wanted.load(); }); });
    thread.startThread();
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    wanted = true;
    thread.endRest();
    thread.joinThread();
    EXPECT_EQ(FakeTime::sleeps(), (std::vector<int>{20}));
    FakeTime::reset();
}

TEST(ThreadName, IsSeenBySystemTools) {
    std::string name;
    std::thread thread([&] {
        BaseThread::setName("StreamParser");
        name = ownThreadName();
    });
    thread.join();
    EXPECT_EQ(name, "StreamParser");
}

TEST(ThreadName, IsCutToFifteenBytes) {
    std::string name;
    std::thread thread([&] {
        SetThreadName(static_cast<unsigned long>(-1), "AudioDecodeThread");
        name = ownThreadName();
    });
    thread.join();
    EXPECT_EQ(name, "AudioDecodeThre");
}

TEST(ThreadName, StaysAsItWasWhenThereIsNone) {
    std::string name;
    std::thread thread([&] {
        SetThreadName(0, "Before");
        SetThreadName(0, nullptr);
        name = ownThreadName();
    });
    thread.join();
    EXPECT_EQ(name, "Before");
}

TEST(ThreadId, IsTheOneThatTheSystemShows) {
    EXPECT_EQ(GET_TID(), static_cast<unsigned int>(gettid()));
    unsigned int other = 0;
    std::thread thread([&] { other = GET_TID(); });
    thread.join();
    EXPECT_NE(other, 0U);
    EXPECT_NE(other, GET_TID());
}

}  // namespace
}  // namespace kelp
