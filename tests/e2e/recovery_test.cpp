// A managed player whose server goes and comes back.
//
// A server that only closes its connections ends the stream, as a file ends; one that falls silent makes reads fail
// after the demuxer's "timeout". So a server is suspended first, until the player has noticed, and then killed.
//
// KELP_RESTARTS=N restarts the server N times for each of the first three tests, which print the time from its return
// to the first picture; KELP_SOCKET_TIMEOUT_US sets the demuxer's limit.

#include <gmock/gmock.h>
#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <random>
#include <thread>

#include "e2e/managed_playback.h"
#include "e2e/media.h"
#include "e2e/recording_sink.h"
#include "e2e/rtsp_server.h"
#include "support/log_capture.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
extern "C" size_t __sanitizer_get_current_allocated_bytes();
#endif

namespace kelp::test {
namespace {

constexpr int kLimitMs = 100000;  // for what takes seconds; a machine under load may take it
constexpr int kRetryMs = 200;

// Six reads run into the limit before a failure is told. It also holds for every answer of an open, so it can't be much
// shorter here.
constexpr const char* kSocketTimeoutUs = "1000000";

// A player that is destroyed leaves its play task and parser allocated, which hold each other.
constexpr long kKeptByAPlayer = 16 * 1024;

// What a player may keep of its playbacks, in bytes of the heap. The plain build's allocator counts what it caches for
// a thread as used; the address sanitizer's doesn't, and shows that nothing is kept at all.
#if defined(__SANITIZE_ADDRESS__)
constexpr long kKeptAtMost = 8 * 1024;
constexpr long kKeptByARestart = 64;
#else
constexpr long kKeptAtMost = 64 * 1024;
constexpr long kKeptByARestart = 4 * 1024;
#endif

int restarts() {
    const char* wanted = std::getenv("KELP_RESTARTS");
    return wanted ? std::atoi(wanted) : 2;
}

void pauseFor(int ms) {
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

template <class Condition>
bool waitUntil(Condition condition, int limitMs = kLimitMs) {
    const int64_t end = steadyUs() + int64_t{limitMs} * 1000;
    while (!condition()) {
        if (steadyUs() > end) {
            return false;
        }
        pauseFor(5);
    }
    return true;
}

int entries(const char* folder) {
    int count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(folder)) {
        ++count;
    }
    return count;
}

// What a process holds that a recovery might leave behind.
struct Holdings {
    int threads = entries("/proc/self/task");
    int descriptors = entries("/proc/self/fd");

    bool operator<=(const Holdings& other) const {
        return threads <= other.threads && descriptors <= other.descriptors;
    }
};

// What is allocated now, in bytes.
long heapBytes() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return static_cast<long>(__sanitizer_get_current_allocated_bytes());
#else
    const auto info = mallinfo2();
    return static_cast<long>(info.uordblks + info.hblkhd);
#endif
}

// The server, a player on it, and what the log says meanwhile.
class Recovery : public testing::Test {
protected:
    Recovery() : log_(3), server_(RtspServer::Files{{"small", mediaPath("small.mp4")}}) { makePlayer(); }

    void makePlayer() {
        playback_ = std::make_unique<ManagedPlayback>();
        const char* timeout = std::getenv("KELP_SOCKET_TIMEOUT_US");
        player().setOption("retry_when_failed", std::to_string(kRetryMs).c_str());
        player().setOption("timeout", timeout ? timeout : kSocketTimeoutUs);
        ASSERT_TRUE(playback_->setSource(server_.url("small")));
    }

    TarnPlayer& player() { return playback_->player(); }

    int retries() { return log_.count("onFailed, add retry timer"); }

    int state() {
        log_.clear();
        player().setDataSource("", 0, nullptr);
        constexpr char kMark[] = "setDataSource, error state:";
        for (const auto& line : log_.lines()) {
            const auto at = line.find(kMark);
            if (at != std::string::npos) {
                return std::atoi(line.c_str() + at + sizeof kMark - 1);
            }
        }
        return PLAYER_STATE_IDLE;
    }

    // The server falls silent, and is killed when the player has noticed.
    void loseServer() {
        const int before = retries();
        server_.suspend();
        ASSERT_TRUE(waitUntil([&] { return retries() > before; }));
        server_.kill();
    }

    // The server comes back; notes the time until the host hears `word` again.
    void returnServer(const std::string& word = "picture") {
        const int before = playback_->count(word);
        server_.start();
        const int64_t returned = steadyUs();
        ASSERT_TRUE(playback_->waitFor(word, before + 1, kLimitMs));
        returnMs_.push_back(static_cast<int>((playback_->lastUs(word) - returned) / 1000));
    }

    // A start is refused while a source that isn't there is waited for, so it comes from within the callback.
    void startWhenPrepared() {
        playback_->inCallback = [this](const std::string& word) {
            if (word == "prepared") {
                EXPECT_TRUE(player().start());
            }
        };
    }

    bool playsOn() { return playback_->sink().waitFor(playback_->sink().count() + 5, kLimitMs); }

    // The host heard of no failure, and the timers' numbers are used again.
    void expectSilence() {
        EXPECT_EQ(playback_->count("failed"), 0);
        EXPECT_EQ(playback_->count("completed"), 0);
        for (const auto& line : log_.lines()) {
            const auto at = line.find("retryTimerId_:");
            if (at != std::string::npos) {
                EXPECT_EQ(line.substr(at), "retryTimerId_:1\n");
            }
        }
    }

    void printTimes(const char* what, const char* event = "the first picture") {
        std::sort(returnMs_.begin(), returnMs_.end());
        std::printf("%s: %zu restarts; from the server's return to %s median %d ms, worst %d ms\n", what,
                    returnMs_.size(), event, returnMs_[returnMs_.size() / 2], returnMs_.back());
    }

    // Runs `round` as often as wanted. The first one or two make what is made once and kept.
    void repeat(const char* what, const char* event, const std::function<void()>& round) {
        Holdings first;
        long heapAtFirst = 0;
        const int count = restarts();
        for (int i = 0; i < count; ++i) {
            SCOPED_TRACE("round " + std::to_string(i));
            round();
            if (HasFatalFailure()) {
                return;
            }
            expectSilence();
            EXPECT_TRUE(player().stop());
            log_.clear();
            playback_->forget();
            if (i == std::min(1, count - 2)) {
                first = Holdings();
                heapAtFirst = heapBytes();
            }
            EXPECT_TRUE(player().prepareAsync());
        }
        EXPECT_TRUE(player().stop());
        log_.clear();
        playback_->forget();
        EXPECT_TRUE(waitUntil([&] { return Holdings() <= first; }))
            << entries("/proc/self/task") << " threads, " << entries("/proc/self/fd") << " descriptors";
        const long grown = heapBytes() - heapAtFirst;
        EXPECT_LT(grown, kKeptAtMost + count * kKeptByARestart);
        printTimes(what, event);
        std::printf("%s: %d threads and %d descriptors at first, %d and %d at last; the heap grew by %ld bytes\n", what,
                    first.threads, first.descriptors, Holdings().threads, Holdings().descriptors, grown);
    }

    LogCapture log_;
    RtspServer server_;
    std::unique_ptr<ManagedPlayback> playback_;
    std::vector<int> returnMs_;
};

TEST_F(Recovery, TellsTheServerThatTheSessionIsOver) {
    for (const char* transport : {"tcp", "udp"}) {
        SCOPED_TRACE(transport);
        makePlayer();
        player().setOption("rtsp_transport", transport);
        ASSERT_TRUE(player().prepareAsync());
        ASSERT_TRUE(playback_->waitFor("prepared", 1, kLimitMs));
        ASSERT_TRUE(player().start());
        ASSERT_TRUE(playback_->waitFor("picture", 1, kLimitMs));
        const int before = retries();
        server_.suspend();
        ASSERT_TRUE(waitUntil([&] { return retries() > before; }));
        server_.proceed();
        EXPECT_TRUE(server_.waitForTeardown(kLimitMs));
        EXPECT_TRUE(playback_->waitFor("picture", 2, kLimitMs));
        playback_->destroy();
        EXPECT_TRUE(server_.waitForTeardown(kLimitMs));
    }
}

TEST_F(Recovery, BringsAPlayerBackThatPlays) {
    ASSERT_TRUE(player().prepareAsync());
    repeat("playing", "the first picture", [&] {
        EXPECT_TRUE(player().start());
        ASSERT_TRUE(playsOn());
        loseServer();
        returnServer();
        EXPECT_TRUE(playsOn());
        EXPECT_EQ(state(), PLAYER_STATE_STARTED);
    });
}

// A source that is paused isn't read, so nothing shows until it is resumed. The pause comes while the player waits.
TEST_F(Recovery, BringsAPlayerBackThatIsPaused) {
    ASSERT_TRUE(player().prepareAsync());
    repeat("paused", "the start, paused,", [&] {
        EXPECT_TRUE(player().start());
        ASSERT_TRUE(playsOn());
        EXPECT_TRUE(player().pause());
        EXPECT_TRUE(player().resume());
        loseServer();
        EXPECT_TRUE(player().pause());
        returnServer("started");
        playback_->waitForWorker();
        EXPECT_EQ(state(), PLAYER_STATE_PAUSED);
        EXPECT_TRUE(player().resume());
        EXPECT_TRUE(playsOn());
    });
}

// The server dies with the player's question unanswered.
TEST_F(Recovery, BringsAPlayerBackThatPrepares) {
    std::mt19937 generator{1};
    ASSERT_TRUE(player().prepareAsync());
    repeat("preparing", "the source's being prepared", [&] {
        EXPECT_TRUE(player().stop());
        const int prepared = playback_->count("prepared");
        server_.suspend();
        EXPECT_TRUE(player().prepareAsync());
        pauseFor(static_cast<int>(generator() % 100));
        server_.kill();
        ASSERT_TRUE(waitUntil([&] { return retries() > 0; }));
        returnServer("prepared");
        playback_->waitForWorker();
        EXPECT_EQ(state(), PLAYER_STATE_PREPARED);
        EXPECT_EQ(playback_->count("prepared"), prepared + 1);
        EXPECT_TRUE(player().start());
        EXPECT_TRUE(playsOn());
    });
}

TEST_F(Recovery, FindsAServerThatIsNotThereAtFirst) {
    server_.kill();
    startWhenPrepared();
    ASSERT_TRUE(player().prepareAsync());
    ASSERT_TRUE(waitUntil([&] { return retries() >= 3; }));
    EXPECT_TRUE(playback_->told().empty());
    returnServer();
    EXPECT_TRUE(playsOn());
    expectSilence();
    printTimes("not there at first");
}

TEST_F(Recovery, LeavesAPausedPlayerAloneAndMendsItWhenItIsResumed) {
    ASSERT_TRUE(player().prepareAsync());
    EXPECT_TRUE(player().start());
    ASSERT_TRUE(playsOn());
    EXPECT_TRUE(player().pause());
    server_.suspend();
    const size_t told = playback_->told().size();
    pauseFor(1500);  // longer than the demuxer's limit
    EXPECT_EQ(playback_->told().size(), told);
    EXPECT_EQ(retries(), 0);
    EXPECT_TRUE(player().resume());
    loseServer();
    returnServer();
    EXPECT_EQ(state(), PLAYER_STATE_STARTED);
    expectSilence();
}

// A connection that the server closes reads as the end of the stream.
TEST_F(Recovery, TakesAConnectionThatIsClosedForTheEnd) {
    ASSERT_TRUE(player().prepareAsync());
    EXPECT_TRUE(player().start());
    ASSERT_TRUE(playsOn());
    server_.kill();
    ASSERT_TRUE(playback_->waitFor("completed", 1, kLimitMs));
    EXPECT_EQ(state(), PLAYER_STATE_COMPLETED);
    EXPECT_EQ(playback_->count("failed"), 0);
    // The host's own restart goes through a retry, if the server isn't back.
    EXPECT_TRUE(player().stop());
    playback_->waitForWorker();
    startWhenPrepared();
    EXPECT_TRUE(player().prepareAsync());
    ASSERT_TRUE(waitUntil([&] { return retries() > 0; }));
    returnServer();
    EXPECT_EQ(state(), PLAYER_STATE_STARTED);
}

// In every phase: while the timer runs, about when it fires, and while the source is being opened again.
TEST_F(Recovery, EndsInEveryPhaseOfARetry) {
    enum class Phase { Waiting, Firing, Refused, Opening };
    enum class End { Stop, StopAndReset, Reset, Destroy };
    std::mt19937 generator{2};
    // One round makes what is made once.
    ASSERT_TRUE(player().prepareAsync());
    EXPECT_TRUE(player().start());
    ASSERT_TRUE(playsOn());
    playback_.reset();
    const Holdings before;
    log_.clear();
    const long heapBefore = heapBytes();
    int players = 0;
    for (const auto phase : {Phase::Waiting, Phase::Firing, Phase::Refused, Phase::Opening}) {
        for (const auto end : {End::Stop, End::StopAndReset, End::Reset, End::Destroy}) {
            SCOPED_TRACE("phase " + std::to_string(static_cast<int>(phase)) + ", end " +
                         std::to_string(static_cast<int>(end)));
            server_.kill();
            log_.clear();
            makePlayer();
            ++players;
            startWhenPrepared();
            ASSERT_TRUE(player().prepareAsync());
            ASSERT_TRUE(waitUntil([&] { return retries() >= (phase == Phase::Refused ? 2 : 1); }));
            if (phase == Phase::Firing) {
                pauseFor(kRetryMs - 10 + static_cast<int>(generator() % 20));
            } else if (phase == Phase::Opening) {
                // Nobody answers the next attempt.
                server_.start();
                server_.suspend();
                pauseFor(2 * kRetryMs);
            }
            if (end == End::Stop || end == End::StopAndReset) {
                EXPECT_TRUE(player().stop());
            }
            if (end == End::Reset || end == End::StopAndReset) {
                EXPECT_TRUE(player().reset());
            }
            if (end != End::Destroy) {
                // Nothing more is tried.
                playback_->waitForWorker();
                const int retried = log_.count("LoadVideoFile");
                pauseFor(kRetryMs + 100);
                EXPECT_EQ(log_.count("LoadVideoFile"), retried);
                const int ended = end == End::Stop ? PLAYER_STATE_STOPPED : PLAYER_STATE_IDLE;
                // A failure that was on its way to the worker is an error in any state.
                EXPECT_THAT(state(), testing::AnyOf(ended, phase == Phase::Firing ? PLAYER_STATE_ERROR : ended));
            }
            playback_->destroy();
            pauseFor(20);
            EXPECT_EQ(playback_->toldLate(), 0);
            EXPECT_EQ(playback_->count("failed"), 0);
            playback_.reset();
            EXPECT_TRUE(waitUntil([&] { return Holdings() <= before; }))
                << entries("/proc/self/task") << " threads of " << before.threads << ", " << entries("/proc/self/fd")
                << " descriptors of " << before.descriptors;
        }
    }
    log_.clear();
    const long kept = (heapBytes() - heapBefore) / players;
    EXPECT_LT(kept, kKeptByAPlayer);
    std::printf("a player that was destroyed keeps %ld bytes\n", kept);
}

}  // namespace
}  // namespace kelp::test
