// A short playback, and a recording of it, in which one allocation fails, each in its turn: what was asked for may not
// come, but the call throws or answers, an event comes, nothing hangs, and the next playback is whole. Of a file, and
// of a server that keeps half of the film back until playback stands for it.
//
// KELP_FAULTS_EVERY=1 in the environment takes every one; without it one in some.

#include <dlfcn.h>
#include <execinfo.h>
#include <gmock/gmock.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

extern "C" {
#include <libavutil/log.h>
}

#include "e2e/http_server.h"
#include "e2e/media.h"
#include "faults/failing_allocations.h"
#include "kelp_player/kelp_player.h"
#include "kelp_player/log.h"
#include "kelp_player/recorder.h"
#include "kelp_player/stall_observer.h"
#include "support/temp_files.h"

namespace kelp::test {
namespace {

constexpr int kWaitMs = 20000;
constexpr const char* kFolder = "KELP_FAULTS_FOLDER";
constexpr int kNoMemoryExit = 77;    // a child whose thread met std::bad_alloc
constexpr int kChildWaitMs = 90000;  // more than a child that waits in vain needs to say so
// Less than the calls of the libraries in a life that lacks nothing: each of the clip's packets is read, sent and
// received, which makes about 100 at the least. How many more there are depends on when the seek comes.
constexpr int64_t kCallsOfAnyLife = 60;

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
class Host final : public KelpPlayerObserver, public ExternFrameSink, public StallObserver {
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

    void onStalled() override { stalled = true; }
    void onBuffering(int, int) override {}
    void onStallEnded() override {}

    std::atomic<bool> prepared{false};
    std::atomic<bool> failed{false};
    std::atomic<bool> firstFrame{false};
    std::atomic<bool> completed{false};
    std::atomic<bool> stalled{false};
    std::atomic<int> pictures{0};
};

enum class Until { FirstFrame, End };
enum class Source { File, Server };
#ifdef __SANITIZE_THREAD__
constexpr std::array kSources = {Source::File};  // a child that ends at once leaves the server's threads, as it sees it
#else
constexpr std::array kSources = {Source::File, Source::Server};
#endif

std::string name(const testing::TestParamInfo<Source>& source) {
    return source.param == Source::File ? "File" : "Server";
}

// One player's life, in which the host goes on after a call that threw as far as that makes sense.
class Life {
public:
    Life(Until until, Source source) : until_(until), server_(source == Source::Server ? &server() : nullptr) {}

    // One for the whole process; its threads have failures of their own only where all of them do.
    static HttpServer& server() {
        static HttpServer instance(mediaPath("faststart.mp4"));
        return instance;
    }

    void live() {
        if (attempt([&] { player_ = std::make_shared<KelpPlayer>(); }) && attempt([&] { player_->init(&host_); })) {
            attempt([&] { player_->addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&host_), 160, 90); });
            attempt([&] { player_->setOption("max_delay", "500000"); });
            if (server_) {
                server_->holdAt(server_->size() / 2);
                attempt([&] { player_->setOption("preset", "recommended"); });
                attempt([&] { player_->setStallObserver(&host_); });
            }
            attempt([&] { player_->setPacketSink(&recorder_); });
            attempt([&] { recorder_.start(recording()); });
            play();
        }
        if (player_) {
            attempt([&] { player_->stop(); });
            player_->stop();
            player_->setPacketSink(nullptr);
            player_->setStallObserver(nullptr);
            recorder_.stop();
            attempt([&] { player_->release(); });
            player_->release();
            player_.reset();
        }
        if (server_) {
            server_->release();  // a connection that it holds notices its end by then
        }
    }

    const Host& host() const { return host_; }
    // How it came to its end.
    std::string ending() const {
        return refused_          ? "refused"
               : host_.failed    ? "failed"
               : host_.completed ? "completed"
               : standsStill()   ? "stands still"
                                 : "never";
    }
    // Whether sound goes nowhere, for want of a device or of the ring before it, which alone asks with std::nothrow. A
    // source with sound then stands until it is stopped.
    static bool standsStill() {
        const std::string_view call = FailingAllocations::failedCall();
        return call == "SDL_OpenAudioDevice" || call == "new (std::nothrow)";
    }
    // Whether a recording alone has been without memory.
    static bool isOfRecording() {
        const std::string_view call = FailingAllocations::failedCall();
        return call.starts_with("avio_") || call.find("output") != call.npos || call.find("write") != call.npos ||
               call == "avformat_new_stream" || call == "av_packet_clone";
    }
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
            refused_ = true;
            return;
        }
        hung_ |= !waitUntil([&] { return goesOn() && (host_.prepared || host_.failed); });
        if (!host_.prepared) {
            return;
        }
        bool playing = false;
        attempt([&] { playing = player_->play(); });
        if (!playing) {
            refused_ = true;
            return;
        }
        attempt([&] { player_->setSpeed(1.25F); });
        attempt([&] { player_->pause(); });
        attempt([&] { player_->resume(); });
        attempt([&] { player_->seek(server_ ? 2600 : 100); });
        hung_ |= !waitUntil([&] {
            return (goesOn() && host_.completed) || host_.failed || (until_ == Until::FirstFrame && host_.firstFrame) ||
                   standsStill();
        });
    }

    // Where nothing tells of a stall the server goes on by itself, by and by.
    bool goesOn() {
        if (server_ && (host_.stalled || ++looks_ > 60)) {
            server_->release();
        }
        return true;
    }

    // In a folder that the program which runs the children takes away.
    static std::string recording() {
        const char* const folder = std::getenv(kFolder);
        return std::string(folder ? folder : ".") + "/" + std::to_string(getpid()) + ".mp4";
    }

    const Until until_;
    HttpServer* const server_;
    const std::string path_ = server_ ? server_->url() : mediaPath("short.mp4");
    int looks_ = 0;
    Host host_;
    Recorder recorder_;
    std::shared_ptr<KelpPlayer> player_;
    bool refused_ = false;  // `loadFileAsync` or `play` said no, or threw
    bool threw_ = false;
    bool hung_ = false;
};

// A process of its own that lives one life with one failure, and another one without.
class Child {
public:
    Child(const std::string& test, int64_t number) : number_(number), output_(std::tmpfile()) {
        const std::string filter = "--gtest_filter=Of/AllocationFailures.DISABLED_" + test;
        const std::string text = std::to_string(number);
        const pid_t parent = getpid();
        pid_ = output_ ? fork() : -1;
        if (pid_ < 0) {
            throw std::system_error(errno, std::generic_category(), "a child");
        }
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            setenv("KELP_FAULTS_NUMBER", text.c_str(), 1);
            dup2(fileno(output_), STDOUT_FILENO);
            dup2(fileno(output_), STDERR_FILENO);
            if (getppid() == parent) {
                execl("/proc/self/exe", "allocation_child", "--gtest_also_run_disabled_tests", filter.c_str(), nullptr);
            }
            _exit(1);
        }
    }
    ~Child() {
        if (!over_) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        std::fclose(output_);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    int64_t number() const { return number_; }
    bool isOver() { return over_ = over_ || waitpid(pid_, &status_, WNOHANG) == pid_; }
    bool isTooOld() const {
        return std::chrono::steady_clock::now() > since_ + std::chrono::milliseconds(kChildWaitMs);
    }
    int status() const { return status_; }
    // The code it exited with, once it is over; -1 if a signal ended it.
    int exitCode() const { return over_ && WIFEXITED(status_) ? WEXITSTATUS(status_) : -1; }

    std::string output() const {
        std::string text;
        std::array<char, 4096> part{};
        ssize_t size = 0;
        while ((size = pread(fileno(output_), part.data(), part.size(), static_cast<off_t>(text.size()))) > 0) {
            text.append(part.data(), static_cast<size_t>(size));
        }
        return text;
    }
    // What follows `start` in its line.
    std::string line(const std::string& start) const {
        const std::string text = output();
        const size_t begin = text.find(start);
        return begin == std::string::npos
                   ? ""
                   : text.substr(begin + start.size(), text.find('\n', begin) - begin - start.size());
    }

private:
    const int64_t number_;
    std::FILE* const output_;
    const std::chrono::steady_clock::time_point since_ = std::chrono::steady_clock::now();
    pid_t pid_ = -1;
    bool over_ = false;
    int status_ = 0;
};

// Under ThreadSanitizer FFmpeg's memory can't be taken away, see failing_allocations.cpp.
#ifndef __SANITIZE_THREAD__

constexpr int kFFmpegCrashExit = 78;   // a child in which FFmpeg itself crashed
constexpr size_t kChildrenAtOnce = 8;  // they wait for their sound most of the time
constexpr char kEndingLine[] = "it ended: ";
constexpr char kWithoutFailure[] = " before the failure";
constexpr char kFailureLine[] = "without memory: ";
constexpr char kCrashLine[] = "crash in FFmpeg: ";

extern "C" char __executable_start;
extern "C" char etext;

bool isOurs(const void* address) {
    return address >= static_cast<const void*>(&__executable_start) && address < static_cast<const void*>(&etext);
}

// One line: the calls of FFmpeg's from the innermost one on, up to the one that is ours. A name is that of the last
// function before the address that its library exports.
void printCalls(const char* start, void* const* calls, int count) {
    dprintf(STDOUT_FILENO, "%s", start);
    bool inside = false;
    for (int i = 0; i < count; ++i) {
        Dl_info info{};
        if (FailingAllocations::isInFFmpeg(calls[i]) && dladdr(calls[i], &info) != 0) {
            const std::string_view path = info.dli_fname;
            const auto* base = info.dli_sname ? info.dli_saddr : info.dli_fbase;
            dprintf(STDOUT_FILENO, "%s%s+0x%tx (%s)", inside ? " < " : "", info.dli_sname ? info.dli_sname : "",
                    static_cast<const char*>(calls[i]) - static_cast<const char*>(base),
                    info.dli_fname + path.rfind('/') + 1);
            inside = true;
        } else if (inside && isOurs(calls[i])) {
            break;
        }
    }
    dprintf(STDOUT_FILENO, "\n");
}

// Where the program was; behind a call through a null pointer, where it came from.
void* placeOf(const ucontext_t& context) {
#if defined(__x86_64__)
    const auto& registers = context.uc_mcontext.gregs;
    void* const place = reinterpret_cast<void*>(registers[REG_RIP]);
    return place ? place : *reinterpret_cast<void**>(registers[REG_RSP]);
#elif defined(__aarch64__)
    const auto& machine = context.uc_mcontext;
    return reinterpret_cast<void*>(machine.pc ? machine.pc : machine.regs[30]);
#endif
}

// Ends the process with a code of its own if FFmpeg crashed, and as the signal would have if it was us.
void onCrash(int number, siginfo_t*, void* context) {
    std::signal(number, SIG_DFL);
    alarm(10);  // what crashed may hold a lock that is needed here
    void* const at = placeOf(*static_cast<ucontext_t*>(context));
    std::array<void*, 48> frames{};
    const int count = backtrace(frames.data(), static_cast<int>(frames.size()));
    auto* begin = std::find(frames.data(), frames.data() + count, at);
    auto* end = frames.data() + count;
    if (begin == end) {
        frames[0] = at;
        begin = frames.data();
        end = begin + 1;
    }
    // The system's functions crash for who called them.
    const auto* guilty =
        std::find_if(begin, end, [](void* frame) { return FailingAllocations::isInFFmpeg(frame) || isOurs(frame); });
    std::array<void*, 24> calls{};
    printCalls(kFailureLine, calls.data(),
               FailingAllocations::callsOfFailure(calls.data(), static_cast<int>(calls.size())));
    if (guilty != end && FailingAllocations::isInFFmpeg(*guilty)) {
        printCalls(kCrashLine, begin, static_cast<int>(end - begin));
        _exit(kFFmpegCrashExit);
    }
    backtrace_symbols_fd(frames.data(), count, STDOUT_FILENO);
    raise(number);
}

void tellCrashes() {
    std::array<void*, 1> first{};
    backtrace(first.data(), 1);  // the first one loads what it needs
    struct sigaction action {};
    action.sa_sigaction = onCrash;
    action.sa_flags = SA_SIGINFO;
    for (const int number : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT}) {
        sigaction(number, &action, nullptr);
    }
}

#endif

class AllocationFailures : public testing::TestWithParam<Source> {
protected:
    using Of = FailingAllocations::Of;

    static void SetUpTestSuite() {
        // Lines are made all the same.
        Log::SetLogCallback([](const char*) {});
        if (!std::getenv(kFolder)) {
            static const TempFolder folder;
            setenv(kFolder, folder.path("").c_str(), 1);
        }
        // What is started once for the process is there behind this.
        for (const Source source : kSources) {
            Life(Until::FirstFrame, source).live();
        }
        av_log_set_level(AV_LOG_QUIET);
    }
    ~AllocationFailures() override { FailingAllocations::disarm(); }

    static int64_t countOf(Of which, Until until) {
        Life life(until, GetParam());
        FailingAllocations::arm(which, 0);
        life.live();
        const int64_t count = FailingAllocations::count();
        FailingAllocations::disarm();
        return count;
    }

    static void expectWholePlayback() {
        FailingAllocations::disarm();
        Life life(Until::End, GetParam());
        life.live();
        EXPECT_TRUE(life.host().completed);
        EXPECT_FALSE(life.host().failed);
        EXPECT_GT(life.host().pictures, 0);
    }
};

TEST_P(AllocationFailures, ThrowOutOfTheHostsCallAndLeaveThePlayerUsable) {
    const int64_t count = countOf(Of::WindowThreads, Until::FirstFrame);
    ASSERT_GT(count, 20);
    const int threads = threadCount();
    const int64_t step = stepOf(count, 40);
    int64_t tried = 0;
    for (int64_t number = 1; number <= count; number += step, ++tried) {
        SCOPED_TRACE(number);
        Life life(Until::FirstFrame, GetParam());
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

TEST_P(AllocationFailures, OfTheLibrariesDropAFrameOrFailTheSource) {
    const int64_t count = countOf(Of::Libraries, Until::End);
    ASSERT_GT(count, 50);
    const int threads = threadCount();
    const int64_t step = stepOf(count, 6);
    int64_t tried = 0;
    // The first ones open things, each another one; behind them come the same ones for each frame.
    for (int64_t number = 1; number <= count; number += number < 20 ? 1 : step, ++tried) {
        SCOPED_TRACE(number);
        Life life(Until::End, GetParam());
        FailingAllocations::arm(Of::Libraries, number);
        life.live();
        const bool failed = FailingAllocations::failed();
        SCOPED_TRACE(FailingAllocations::failedCall());
        const std::string ending = life.ending();
        const bool isPlayedToTheEnd = !failed || Life::isOfRecording();
        FailingAllocations::disarm();
        EXPECT_FALSE(life.threw());
        EXPECT_FALSE(life.hung());
        EXPECT_TRUE(failed || number > kCallsOfAnyLife);
        if (isPlayedToTheEnd) {
            EXPECT_EQ(ending, "completed");
        } else {
            EXPECT_THAT(ending, testing::AnyOf("refused", "failed", "completed", "stands still"));
        }
        ASSERT_TRUE(waitUntil([&] { return threadCount() <= threads; })) << "threads are left";
    }
    expectWholePlayback();
    std::printf("%lld of %lld calls of the libraries failed\n", static_cast<long long>(tried),
                static_cast<long long>(count));
}

// Nobody is there to take an exception of the player's own threads: it ends the process, at once.
TEST_P(AllocationFailures, OnThePlayersThreadsEndTheProcessAndNeverHang) {
    const int64_t count = countOf(Of::OtherThreads, Until::End);
    ASSERT_GT(count, 50);
    const int64_t step = stepOf(count, 6);
    int64_t tried = 0;
    int64_t ended = 0;
    for (int64_t number = 1; number <= count; number += step, ++tried) {
        SCOPED_TRACE(number);
        Child child("InAChild/" + name({GetParam(), 0}), number);
        EXPECT_TRUE(waitUntil([&] { return child.isOver(); })) << "hangs";
        EXPECT_THAT(child.exitCode(), testing::AnyOf(0, kNoMemoryExit)) << "status " << child.status() << "\n"
                                                                        << child.output();
        ended += child.exitCode() == kNoMemoryExit;
    }
    std::printf("%lld of %lld allocations on the player's threads failed, %lld ended the process\n",
                static_cast<long long>(tried), static_cast<long long>(count), static_cast<long long>(ended));
}

TEST_P(AllocationFailures, DISABLED_InAChild) {
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
    Life life(Until::End, GetParam());
    FailingAllocations::arm(Of::OtherThreads, std::atoll(number));
    life.live();
    FailingAllocations::disarm();
    EXPECT_FALSE(life.hung());
    // No leak is looked for behind an allocation that failed on another thread.
    std::fflush(nullptr);
    _exit(HasFailure() ? 1 : 0);
}

#ifndef __SANITIZE_THREAD__

// In children: a library that doesn't survive its own failure takes nobody with it. Meets FFmpeg's faults, which come
// and go with the order of its threads; so it runs where it is asked for, by `./dev faults`.
TEST_P(AllocationFailures, DISABLED_InsideFFmpegFailTheSourceOrDropAFrame) {
    const int64_t count = countOf(Of::InsideFFmpeg, Until::End);
    ASSERT_GT(count, 200);
    const int64_t step = stepOf(count, 30);
    std::map<std::string, int64_t> endings;
    std::map<std::string, std::vector<int64_t>> crashes;
    int64_t tried = 0;
    std::vector<std::unique_ptr<Child>> children;
    const auto judge = [&](const Child& child) {
        SCOPED_TRACE(child.number());
        ++tried;
        if (child.exitCode() == kFFmpegCrashExit) {
            crashes[child.line(kCrashLine) + "\n    without memory in " + child.line(kFailureLine)].push_back(
                child.number());
            return;
        }
        EXPECT_EQ(child.exitCode(), 0) << (child.isTooOld() ? "hangs" : "ends") << ", status " << child.status() << "\n"
                                       << child.output();
        ++endings[child.line(kEndingLine)];
    };
    for (int64_t number = 1; number <= count || !children.empty();) {
        if (number <= count && children.size() < kChildrenAtOnce) {
            children.push_back(std::make_unique<Child>("WithoutMemoryInsideFFmpeg/" + name({GetParam(), 0}), number));
            number += step;
            continue;
        }
        std::erase_if(children, [&](const auto& child) {
            if (!child->isOver() && !child->isTooOld()) {
                return false;
            }
            judge(*child);
            return true;
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    // The last ones may not come in each life, see kCallsOfAnyLife.
    EXPECT_LT(endings[std::string("completed") + kWithoutFailure], tried / 2);
    std::printf("%lld of %lld allocations inside FFmpeg failed\n", static_cast<long long>(tried),
                static_cast<long long>(count));
    for (const auto& [ending, times] : endings) {
        std::printf("%lld %s\n", static_cast<long long>(times), ending.c_str());
    }
    for (const auto& [crash, numbers] : crashes) {
        std::printf("%zu crashed in FFmpeg, number %lld: %s\n", numbers.size(), static_cast<long long>(numbers.front()),
                    crash.c_str());
    }
}

TEST_P(AllocationFailures, DISABLED_WithoutMemoryInsideFFmpeg) {
    const char* number = std::getenv("KELP_FAULTS_NUMBER");
    ASSERT_NE(number, nullptr);
    tellCrashes();
    Life life(Until::End, GetParam());
    FailingAllocations::arm(Of::InsideFFmpeg, std::atoll(number));
    life.live();
    const bool failed = FailingAllocations::failed();
    FailingAllocations::disarm();
    EXPECT_FALSE(life.threw());
    EXPECT_FALSE(life.hung());
    EXPECT_THAT(life.ending(), testing::AnyOf("refused", "failed", "completed"));
    expectWholePlayback();
    std::array<void*, 24> calls{};
    printCalls(kFailureLine, calls.data(),
               FailingAllocations::callsOfFailure(calls.data(), static_cast<int>(calls.size())));
    std::printf("%s%s%s\n", kEndingLine, life.ending().c_str(), failed ? "" : kWithoutFailure);
    // FFmpeg loses memory where one of its allocations fails: no leak is looked for.
    std::fflush(nullptr);
    _exit(HasFailure() ? 1 : 0);
}

#endif

INSTANTIATE_TEST_SUITE_P(Of, AllocationFailures, testing::ValuesIn(kSources), name);

}  // namespace
}  // namespace kelp::test
