// A short playback in which one allocation fails, each in its turn: what was asked for may not come, but the call
// throws or answers, an event comes, nothing hangs, and the next playback is whole.
//
// KELP_FAULTS_EVERY=1 in the environment takes every one; without it one in some.

#include <gmock/gmock.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <thread>

extern "C" {
#include <libavutil/log.h>
}

#include "e2e/media.h"
#include "faults/failing_allocations.h"
#include "kelp_player/kelp_player.h"
#include "kelp_player/log.h"

namespace kelp::test {
namespace {

constexpr int kWaitMs = 20000;
constexpr int kNoMemoryExit = 77;  // a child whose thread met std::bad_alloc

// How many of `count` places are skipped after each that is tried.
int64_t stepOf(int64_t count, int64_t inCi) {
    if (const char* every = std::getenv("KELP_FAULTS_EVERY")) {
        return std::max(std::atoll(every), 1LL);
    }
    return std::max<int64_t>(count / inCi, 1);
}

int threadCount() {
    int count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
        ++count;
    }
    return count;
}

bool waitUntil(const std::function<bool()>& condition) {
    for (int i = 0; i < kWaitMs / 5; ++i) {
        if (condition()) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return false;
}

// Allocates nothing itself.
class Host final : public KelpPlayerObserver, public ExternFrameSink {
public:
    virtual ~Host() = default;

    void onVideoSizeUpdated(std::shared_ptr<KelpPlayer>, int, int, int) override {}
    void onPrepared(std::shared_ptr<KelpPlayer>, bool, bool) override { prepared = true; }
    void onFailed(std::shared_ptr<KelpPlayer>, int, int) override { failed = true; }
    void onFirstPacket(std::shared_ptr<KelpPlayer>, int) override {}
    void onFirstVideoFrame(std::shared_ptr<KelpPlayer>, int) override { firstFrame = true; }
    void onFirstAudioFrame(std::shared_ptr<KelpPlayer>, int) override { firstFrame = true; }
    void onCompleted(std::shared_ptr<KelpPlayer>) override { completed = true; }
    void onDurationUpdated(std::shared_ptr<KelpPlayer>, int) override {}
    void onVideoSize(int, int, int) override {}
    bool onVideoFrame(int, int64_t, uint8_t**, int*, int, int64_t) override {
        ++pictures;
        return true;
    }

    std::atomic<bool> prepared{false};
    std::atomic<bool> failed{false};
    std::atomic<bool> firstFrame{false};
    std::atomic<bool> completed{false};
    std::atomic<int> pictures{0};
};

enum class Until { FirstFrame, End };

// One player's life, in which the host goes on after a call that threw as far as that makes sense.
class Life {
public:
    explicit Life(Until until) : until_(until) {}

    void live() {
        if (attempt([&] { player_ = std::make_shared<KelpPlayer>(); }) && attempt([&] { player_->init(&host_); })) {
            attempt([&] { player_->addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&host_), 160, 90); });
            attempt([&] { player_->setOption("max_delay", "500000"); });
            play();
        }
        if (player_) {
            attempt([&] { player_->stop(); });
            player_->stop();
            attempt([&] { player_->release(); });
            player_->release();
            player_.reset();
        }
    }

    const Host& host() const { return host_; }
    bool threw() const { return threw_; }
    bool hung() const { return hung_; }

private:
    bool attempt(const std::function<void()>& call) {
        try {
            const FailingAllocations::Window window;
            call();
            return true;
        } catch (const std::bad_alloc&) {
            threw_ = true;
            return false;
        }
    }

    void play() {
        bool loading = false;
        attempt([&] { loading = player_->loadFileAsync(path_.c_str(), 0); });
        if (!loading) {
            return;
        }
        hung_ |= !waitUntil([&] { return host_.prepared || host_.failed; });
        bool playing = false;
        if (!host_.prepared || !attempt([&] { playing = player_->play(); }) || !playing) {
            return;
        }
        attempt([&] { player_->setSpeed(1.25F); });
        attempt([&] { player_->pause(); });
        attempt([&] { player_->resume(); });
        attempt([&] { player_->seek(100); });
        hung_ |= !waitUntil(
            [&] { return host_.completed || host_.failed || (until_ == Until::FirstFrame && host_.firstFrame); });
    }

    const std::string path_ = mediaPath("short.mp4");
    const Until until_;
    Host host_;
    std::shared_ptr<KelpPlayer> player_;
    bool threw_ = false;
    bool hung_ = false;
};

class AllocationFailures : public testing::Test {
protected:
    using Of = FailingAllocations::Of;

    static void SetUpTestSuite() {
        // Lines are made all the same.
        Log::SetLogCallback([](const char*) {});
        Life(Until::FirstFrame).live();  // what is started once for the process is there behind this
        av_log_set_level(AV_LOG_QUIET);
    }
    ~AllocationFailures() override { FailingAllocations::disarm(); }

    static int64_t countOf(Of which, Until until) {
        Life life(until);
        FailingAllocations::arm(which, 0);
        life.live();
        const int64_t count = FailingAllocations::count();
        FailingAllocations::disarm();
        return count;
    }

    static void expectWholePlayback() {
        FailingAllocations::disarm();
        Life life(Until::End);
        life.live();
        EXPECT_TRUE(life.host().completed);
        EXPECT_FALSE(life.host().failed);
        EXPECT_GT(life.host().pictures, 0);
    }
};

TEST_F(AllocationFailures, ThrowOutOfTheHostsCallAndLeaveThePlayerUsable) {
    const int64_t count = countOf(Of::WindowThreads, Until::FirstFrame);
    ASSERT_GT(count, 20);
    const int threads = threadCount();
    const int64_t step = stepOf(count, 40);
    int64_t tried = 0;
    for (int64_t number = 1; number <= count; number += step, ++tried) {
        SCOPED_TRACE(number);
        Life life(Until::FirstFrame);
        FailingAllocations::arm(Of::WindowThreads, number);
        life.live();
        // Threads' races make for some allocations more or less.
        EXPECT_EQ(life.threw(), FailingAllocations::failed());
        FailingAllocations::disarm();
        EXPECT_FALSE(life.hung());
        // Joined threads leave the list a moment later.
        ASSERT_TRUE(waitUntil([&] { return threadCount() <= threads; })) << "threads are left";
    }
    expectWholePlayback();
    std::printf("%lld of %lld allocations of the host's calls failed\n", static_cast<long long>(tried),
                static_cast<long long>(count));
}

TEST_F(AllocationFailures, OfTheLibrariesDropAFrameOrFailTheSource) {
    const int64_t count = countOf(Of::Libraries, Until::End);
    ASSERT_GT(count, 50);
    const int threads = threadCount();
    const int64_t step = stepOf(count, 6);
    int64_t tried = 0;
    // The first ones open things, each another one; behind them come the same ones for each frame.
    for (int64_t number = 1; number <= count; number += number < 20 ? 1 : step, ++tried) {
        SCOPED_TRACE(number);
        Life life(Until::End);
        FailingAllocations::arm(Of::Libraries, number);
        life.live();
        FailingAllocations::disarm();
        EXPECT_FALSE(life.threw());
        EXPECT_FALSE(life.hung());
        ASSERT_TRUE(waitUntil([&] { return threadCount() <= threads; })) << "threads are left";
    }
    expectWholePlayback();
    std::printf("%lld of %lld calls of the libraries failed\n", static_cast<long long>(tried),
                static_cast<long long>(count));
}

// Nobody is there to take an exception of the player's own threads: it ends the process, at once.
TEST_F(AllocationFailures, OnThePlayersThreadsEndTheProcessAndNeverHang) {
    const int64_t count = countOf(Of::OtherThreads, Until::End);
    ASSERT_GT(count, 50);
    const int64_t step = stepOf(count, 6);
    int64_t tried = 0;
    int64_t ended = 0;
    for (int64_t number = 1; number <= count; number += step, ++tried) {
        SCOPED_TRACE(number);
        const std::string text = std::to_string(number);
        const pid_t parent = getpid();
        const pid_t child = fork();
        if (child == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            setenv("KELP_FAULTS_NUMBER", text.c_str(), 1);
            if (getppid() == parent) {
                execl("/proc/self/exe", "allocation_child", "--gtest_also_run_disabled_tests",
                      "--gtest_filter=AllocationFailures.DISABLED_InAChild", nullptr);
            }
            _exit(1);
        }
        ASSERT_GT(child, 0);
        int status = 0;
        const bool over = waitUntil([&] { return waitpid(child, &status, WNOHANG) == child; });
        if (!over) {
            kill(child, SIGKILL);
            waitpid(child, &status, 0);
        }
        EXPECT_TRUE(over) << "hangs";
        EXPECT_TRUE(WIFEXITED(status) && (WEXITSTATUS(status) == 0 || WEXITSTATUS(status) == kNoMemoryExit))
            << "status " << status;
        ended += WIFEXITED(status) && WEXITSTATUS(status) == kNoMemoryExit;
    }
    std::printf("%lld of %lld allocations on the player's threads failed, %lld ended the process\n",
                static_cast<long long>(tried), static_cast<long long>(count), static_cast<long long>(ended));
}

TEST_F(AllocationFailures, DISABLED_InAChild) {
    const char* number = std::getenv("KELP_FAULTS_NUMBER");
    ASSERT_NE(number, nullptr);
    std::set_terminate([] {
        try {
            if (const auto exception = std::current_exception()) {
                std::rethrow_exception(exception);
            }
        } catch (const std::bad_alloc&) {
            _exit(kNoMemoryExit);
        } catch (...) {
            std::abort();
        }
        std::abort();
    });
    Life life(Until::End);
    FailingAllocations::arm(Of::OtherThreads, std::atoll(number));
    life.live();
    FailingAllocations::disarm();
    EXPECT_FALSE(life.hung());
    // No leak is looked for behind an allocation that failed on another thread.
    std::fflush(nullptr);
    _exit(HasFailure() ? 1 : 0);
}

}  // namespace
}  // namespace kelp::test
