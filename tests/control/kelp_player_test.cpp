#include "kelp_player/kelp_player.h"

#include <SDL.h>
#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <limits>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <thread>

#include "control/extern_sync_wrapper.h"
#include "kelp_player/log.h"
#include "playtask/play_task_peer.h"
#include "playtask/small_media.h"
#include "support/log_capture.h"

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/log.h>
}

// Players as a host drives them, in real time: the worker's threads and the sound device take theirs.

namespace {

std::atomic<bool> sdlFails{false};
std::atomic<int> sdlInits{0};
std::atomic<int> networkInits{0};
std::atomic<Uint32> sdlFlags{0};

}  // namespace

extern "C" {

int __real_SDL_Init(Uint32 flags);
int __wrap_SDL_Init(Uint32 flags) {
    ++sdlInits;
    sdlFlags = flags;
    if (sdlFails) {
        return SDL_SetError("no screen today");
    }
    return __real_SDL_Init(flags);
}

int __real_avformat_network_init();
int __wrap_avformat_network_init() {
    ++networkInits;
    return __real_avformat_network_init();
}

}  // extern "C"

namespace kelp {

class KelpPlayerPeer {
public:
    static std::shared_ptr<PlayTask> playTask(KelpPlayer& player) { return player.playTask_; }
    static std::shared_ptr<Worker> worker(KelpPlayer& player) { return player.worker_; }
    static std::shared_ptr<ExternSyncWrapper> wrapper(KelpPlayer& player) { return player.externSyncWrapper_; }
};

namespace test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

template <class Condition>
bool waitUntil(Condition condition, int timeoutMs = 20000) {
    return TaskUnderTest::waitUntil(condition, timeoutMs);
}

// How many threads of this process have that name.
int threadsNamed(const std::string& name) {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream file(entry.path() / "comm");
        std::string comm;
        count += std::getline(file, comm) && comm == name;
    }
    return count;
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
// Notes every event as text, with its numbers, and then does what the test wants done.
class Recorder : public KelpPlayerObserver {
public:
    using Player = std::shared_ptr<KelpPlayer>;

    void onVideoSizeUpdated(Player player, int width, int height, int rotate) override {
        note(player, "size", {width, height, rotate});
    }
    void onPrepared(Player player, bool hasVideo, bool hasAudio) override {
        note(player, "prepared", {hasVideo, hasAudio});
    }
    void onFailed(Player player, int errorType, int extraData) override {
        note(player, "failed", {errorType, extraData});
    }
    void onFirstPacket(Player player, int ptsMs) override { note(player, "packet", {ptsMs}); }
    void onFirstVideoFrame(Player player, int ptsMs) override { note(player, "video", {ptsMs}); }
    void onFirstAudioFrame(Player player, int ptsMs) override { note(player, "audio", {ptsMs}); }
    void onCompleted(Player player) override { note(player, "completed", {}); }
    void onDurationUpdated(Player player, int durationMs) override { note(player, "duration", {durationMs}); }

    std::vector<std::string> events() {
        std::lock_guard lock(mutex_);
        return events_;
    }
    int count(const std::string& start) {
        const auto all = events();
        return static_cast<int>(
            std::count_if(all.begin(), all.end(), [&](const auto& e) { return e.starts_with(start); }));
    }
    bool has(const std::string& start) { return count(start) > 0; }
    // Threads that the events came on, and players that they were about.
    size_t threads() {
        std::lock_guard lock(mutex_);
        return threads_.size();
    }
    std::set<KelpPlayer*> players() {
        std::lock_guard lock(mutex_);
        return players_;
    }

    // Runs on the worker thread with each event's text, after it was noted.
    std::function<void(const Player&, const std::string&)> then;

private:
    void note(const Player& player, const std::string& name, const std::vector<int>& numbers) {
        std::ostringstream text;
        text << name;
        for (const int number : numbers) {
            text << " " << number;
        }
        {
            std::lock_guard lock(mutex_);
            events_.push_back(text.str());
            threads_.insert(std::this_thread::get_id());
            players_.insert(player.get());
        }
        if (then) {
            then(player, text.str());
        }
    }

    std::mutex mutex_;
    std::vector<std::string> events_;
    std::set<std::thread::id> threads_;
    std::set<KelpPlayer*> players_;
};
#pragma GCC diagnostic pop

class HostClock : public KelpSyncClock {
public:
    explicit HostClock(int64_t pts) : pts_(pts) {}
    int64_t getNoSyncThreshold() override { return 1; }
    bool isForceSync() override { return false; }
    int64_t getSyncPts() override {
        ++readings;
        return pts_;
    }

    std::atomic<int> readings{0};

private:
    int64_t pts_;
};

class KelpPlayerTest : public testing::Test {
protected:
    void SetUp() override {
        // Process-wide things can only be tried out in a process of their own.
        testing::GTEST_FLAG(death_test_style) = "threadsafe";
    }
    void TearDown() override {
        if (player) {
            player->stop();
        }
        player.reset();
    }

    void init() { ASSERT_TRUE(player->init(&recorder)); }

    void raise(int type, int a, int b, int c) { PlayTaskPeer(*task()).raise(type, a, b, c); }
    std::shared_ptr<PlayTask> task() { return KelpPlayerPeer::playTask(*player); }

    // Waits until the worker has run what is queued now.
    void drain() {
        std::atomic<bool> done{false};
        player->runInWorker([&] { done = true; });
        ASSERT_TRUE(waitUntil([&] { return done.load(); }));
    }

    Recorder recorder;
    std::shared_ptr<KelpPlayer> player = std::make_shared<KelpPlayer>();
};

// Ends the process of a death test: with 0 if all went well, after a word about what did not.
#define CHILD_EXPECT(condition)                               \
    do {                                                      \
        if (!(condition)) {                                   \
            std::fprintf(stderr, "not so: %s\n", #condition); \
            std::_Exit(1);                                    \
        }                                                     \
    } while (false)

TEST_F(KelpPlayerTest, StartsTheLibrariesOnce) {
    EXPECT_EXIT(
        {
            std::vector<std::string> lines;
            Log::SetLogCallback([&](const char* line) { lines.emplace_back(line); });
            av_log_set_level(AV_LOG_QUIET);
            CHILD_EXPECT(std::make_shared<KelpPlayer>()->init(nullptr));
            CHILD_EXPECT(sdlInits == 1 && networkInits == 1 && sdlFlags == 48);
            CHILD_EXPECT(av_log_get_level() == 32);
            CHILD_EXPECT(av_log_get_flags() == 1);
            CHILD_EXPECT(Log::GetLevel() == 3);
            // The line is cut.
            const std::string config = std::string(avformat_configuration()).substr(0, 100);
            CHILD_EXPECT(lines[0].find("[KelpPlayer]: ffmpeg config:" + config) != std::string::npos);

            // The next one finds them running, and starts a worker of its own.
            Log::SetLevel(2);
            const auto second = std::make_shared<KelpPlayer>();
            CHILD_EXPECT(second->init(nullptr));
            CHILD_EXPECT(sdlInits == 1 && networkInits == 1);
            CHILD_EXPECT(Log::GetLevel() == 2);
            std::atomic<bool> ran{false};
            second->runInWorker([&] { ran = true; });
            CHILD_EXPECT(waitUntil([&] { return ran.load(); }));
            std::_Exit(HasFailure());
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(KelpPlayerTest, TriesTheLibrariesAgainAfterAFailure) {
    EXPECT_EXIT(
        {
            std::vector<std::string> lines;
            Log::SetLogCallback([&](const char* line) { lines.emplace_back(line); });
            sdlFails = true;
            const auto unlucky = std::make_shared<KelpPlayer>();
            CHILD_EXPECT(!unlucky->init(nullptr));
            CHILD_EXPECT(sdlInits == 1 && networkInits == 1);
            CHILD_EXPECT(threadsNamed("Worker") == 0);
            CHILD_EXPECT(lines[1].find("(ERROR)") != std::string::npos);
            CHILD_EXPECT(lines[1].find("[KelpPlayer]: Could not initialize SDL - no screen today\n") !=
                         std::string::npos);
            CHILD_EXPECT(lines[2].find("[KelpPlayer]: (Did you set the DISPLAY variable?)\n") != std::string::npos);

            // From the beginning: whatever the host has set meanwhile is set anew.
            const auto forget = [&] {
                av_log_set_flags(0);
                av_log_set_level(AV_LOG_QUIET);
                Log::SetLevel(4);
                lines.clear();
            };
            const auto isSetUp = [&] {
                const auto isConfig = [](const std::string& line) {
                    return line.find("ffmpeg config:") != std::string::npos;
                };
                return av_log_get_flags() == 1 && av_log_get_level() == 32 && Log::GetLevel() == 3 &&
                       std::count_if(lines.begin(), lines.end(), isConfig) == 1;
            };
            forget();
            CHILD_EXPECT(!std::make_shared<KelpPlayer>()->init(nullptr));
            CHILD_EXPECT(sdlInits == 2 && networkInits == 2);
            CHILD_EXPECT(isSetUp());
            forget();
            sdlFails = false;
            CHILD_EXPECT(std::make_shared<KelpPlayer>()->init(nullptr));
            CHILD_EXPECT(sdlInits == 3 && networkInits == 3);
            CHILD_EXPECT(isSetUp());
            std::_Exit(HasFailure());
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(KelpPlayerTest, StartsTheLibrariesOnceForManyAtOnce) {
    EXPECT_EXIT(
        {
            std::vector<std::shared_ptr<KelpPlayer>> players(8);
            std::vector<std::thread> threads;
            std::atomic<int> succeeded{0};
            for (auto& one : players) {
                one = std::make_shared<KelpPlayer>();
                threads.emplace_back([&] { succeeded += one->init(nullptr); });
            }
            for (auto& thread : threads) {
                thread.join();
            }
            CHILD_EXPECT(succeeded == 8 && sdlInits == 1);
            std::_Exit(HasFailure());
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(KelpPlayerTest, EndsTheProcessIfItIsInitialisedTwice) {
    EXPECT_DEATH(
        {
            player->init(nullptr);
            player->init(nullptr);
        },
        "terminate");
}

TEST_F(KelpPlayerTest, NeedsASharedOwner) {
    KelpPlayer alone;
    EXPECT_THROW(alone.init(&recorder), std::bad_weak_ptr);
}

TEST_F(KelpPlayerTest, StartsNothingBeforeInit) {
    EXPECT_EQ(threadsNamed("Worker"), 0);
    EXPECT_FALSE(player->play());
    EXPECT_FALSE(player->seek(0));
    EXPECT_EQ(player->getPlayDetailInfo(INFO_WIDTH), 0);
    EXPECT_EQ(player->getCurrentTime(), 0);
    EXPECT_EQ(player->getDuration(), 0);
    EXPECT_TRUE(player->stop());
    player->release();
}

TEST_F(KelpPlayerTest, PlaysAFileWithAllItsEvents) {
    init();
    recorder.then = [](const auto& owner, const std::string& event) {
        if (event == "prepared 1 1") {
            EXPECT_TRUE(owner->play());
        }
    };
    EXPECT_TRUE(player->loadFileAsync(smallMedia("av.mp4").c_str(), 0));
    ASSERT_TRUE(waitUntil([&] { return recorder.has("completed"); }));

    // The file is short: its end is read about when its first frames are shown, by three threads.
    const auto events = recorder.events();
    ASSERT_EQ(events.size(), 7u);
    const std::string duration = "duration " + std::to_string(player->getDuration());
    EXPECT_EQ(events[0], "size 64 48 0");
    EXPECT_EQ(events[1], "prepared 1 1");
    EXPECT_THAT(std::vector<std::string>(events.begin() + 2, events.begin() + 6),
                testing::UnorderedElementsAre(testing::StartsWith("packet "), "video 0", "audio 0", duration));
    EXPECT_EQ(events[6], "completed");
    EXPECT_EQ(recorder.threads(), 1u);
    EXPECT_THAT(recorder.players(), ElementsAre(player.get()));
    EXPECT_EQ(player->getPlayDetailInfo(INFO_DURATION), player->getDuration());
    EXPECT_EQ(player->getPlayDetailInfo(INFO_WIDTH), 64);
    EXPECT_EQ(player->getPlayDetailInfo(INFO_HEIGHT), 48);
    EXPECT_EQ(player->getPlayDetailInfo(INFO_ROTATE), 0);
    EXPECT_EQ(player->getPlayDetailInfo(INFO_FPS), 25);
    EXPECT_EQ(player->getPlayDetailInfo(static_cast<KelpPlayerInfoType>(5)), 0);
    EXPECT_EQ(player->getPlayDetailInfo(static_cast<KelpPlayerInfoType>(-1)), 0);
    EXPECT_GT(player->getCurrentTime(), 1000);
}

TEST_F(KelpPlayerTest, ReportsASourceThatDoesNotOpen) {
    init();
    EXPECT_FALSE(player->loadFileAsync("", 0));
    {
        LogCapture log;
        EXPECT_FALSE(player->loadFileAsync(nullptr, 0));
        EXPECT_EQ(log.count("[KelpPlayer]: loadFileAsync, no file name\n"), 1);
    }
    EXPECT_TRUE(player->loadFileAsync("/nowhere/at/all.mp4", 0));
    ASSERT_TRUE(waitUntil([&] { return recorder.has("failed"); }));
    EXPECT_THAT(recorder.events(), ElementsAre("failed 1 0"));
}

TEST_F(KelpPlayerTest, TakesCommandsFromItsObserver) {
    init();
    std::atomic<int> completed{0};
    recorder.then = [&](const auto& owner, const std::string& event) {
        if (event.rfind("prepared", 0) == 0) {
            owner->play();
        } else if (event.rfind("video", 0) == 0 && completed++ == 0) {
            EXPECT_TRUE(owner->pause());
            EXPECT_TRUE(owner->resume());
            EXPECT_TRUE(owner->stop());
            EXPECT_TRUE(owner->loadFileAsync(smallMedia("video.mp4").c_str(), 0));
        }
    };
    player->loadFileAsync(smallMedia("av.mp4").c_str(), 0);
    ASSERT_TRUE(waitUntil([&] { return recorder.has("completed"); }));
    EXPECT_EQ(completed, 2);
}

TEST_F(KelpPlayerTest, ServesOneObserverForManyPlayers) {
    init();
    const auto second = std::make_shared<KelpPlayer>();
    ASSERT_TRUE(second->init(&recorder));
    second->loadFileAsync(smallMedia("audio.mp4").c_str(), 0);
    player->loadFileAsync(smallMedia("video.mp4").c_str(), 0);
    ASSERT_TRUE(waitUntil([&] { return recorder.has("prepared 1 0") && recorder.has("prepared 0 1"); }));
    EXPECT_EQ(recorder.players(), (std::set<KelpPlayer*>{player.get(), second.get()}));
    EXPECT_EQ(recorder.threads(), 2u);
    second->stop();
}

TEST_F(KelpPlayerTest, CarriesEveryEventToItsOperation) {
    init();
    raise(EVENT_VIDEO_SIZE_UPDATED, 1, 2, 3);
    raise(EVENT_PREPARED, 7, 0, 9);
    raise(EVENT_PREPARED, 0, -1, 9);
    raise(EVENT_FAILED, 4, 5, 6);
    raise(EVENT_FIRST_PACKET, 10, 11, 12);
    raise(EVENT_FIRST_VIDEO_FRAME, 13, 0, 0);
    raise(EVENT_FIRST_AUDIO_FRAME, -14, 0, 0);
    raise(8, 1, 2, 3);
    raise(-1, 1, 2, 3);
    raise(EVENT_COMPLETED, 1, 2, 3);
    raise(EVENT_DURATION_UPDATED, 15, 0, 0);
    drain();
    EXPECT_THAT(recorder.events(), ElementsAre("size 1 2 3", "prepared 1 0", "prepared 0 1", "failed 4 5", "packet 10",
                                               "video 13", "audio -14", "completed", "duration 15"));
}

TEST_F(KelpPlayerTest, KeepsEventsCallablesAndTimersInOrder) {
    init();
    std::vector<std::string> order;
    recorder.then = [&](const auto&, const std::string& event) { order.push_back(event); };
    raise(EVENT_FIRST_PACKET, 1, 0, 0);
    player->runInWorker([&] { order.push_back("callable"); });
    raise(EVENT_FIRST_PACKET, 2, 0, 0);
    drain();
    EXPECT_THAT(order, ElementsAre("packet 1", "callable", "packet 2"));
}

TEST_F(KelpPlayerTest, RunsTimers) {
    init();
    std::atomic<int> once{0};
    std::atomic<int> often{0};
    const auto rare = player->addTimer(1000000, /*oneShot=*/false, [&] { once = 100; });
    const auto quick = player->addTimer(1, /*oneShot=*/false, [&] { ++often; });
    const auto single = player->addTimer(1, /*oneShot=*/true, [&] { ++once; });
    EXPECT_EQ(rare, 1u);
    EXPECT_EQ(quick, 2u);
    EXPECT_EQ(single, 3u);
    ASSERT_TRUE(waitUntil([&] { return often >= 3 && once > 0; }));
    EXPECT_EQ(once, 1);
    player->removeTimer(quick);
    player->removeTimer(rare);
    player->removeTimer(0);
    // What it had queued by then still runs, and nothing comes behind that.
    drain();
    const int until = often;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // nothing to wait for: it must not come
    EXPECT_EQ(often, until);
    EXPECT_EQ(once, 1);
}

TEST_F(KelpPlayerTest, DropsEventsWithoutAnObserver) {
    ASSERT_TRUE(player->init(nullptr));
    raise(EVENT_COMPLETED, 0, 0, 0);
    drain();
}

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

// As every host that has no SDL event loop.
class KelpPlayerSignals : public KelpPlayerTest {
protected:
    // In a process of its own: plays, and is told to end. Exits with 0 if that came as SDL's event, with 1 if nothing
    // came.
    [[noreturn]] void playUntil(int signal) {
        init();
        player->loadFileAsync(smallMedia("long.mp4").c_str(), 0);
        CHILD_EXPECT(waitUntil([&] { return recorder.has("prepared"); }));
        CHILD_EXPECT(player->play());
        CHILD_EXPECT(waitUntil([&] { return recorder.has("video"); }));
        std::raise(signal);
        SDL_PumpEvents();
        std::_Exit(SDL_HasEvent(SDL_QUIT) ? 0 : 1);
    }
};

TEST_F(KelpPlayerSignals, EndTheProcess) {
    smallMedia("long.mp4");  // made once, here
    for (const int signal : {SIGTERM, SIGINT}) {
        EXPECT_EXIT(playUntil(signal), testing::KilledBySignal(signal), "");
    }
}

TEST_F(KelpPlayerSignals, AreSdlsWhereTheEnvironmentSaysSo) {
    smallMedia("long.mp4");
    EXPECT_EXIT(
        {
            setenv("SDL_NO_SIGNAL_HANDLERS", "0", 1);
            playUntil(SIGTERM);
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(KelpPlayerSignals, AreSdlsWhereTheHostSaysSo) {
    smallMedia("long.mp4");
    EXPECT_EXIT(
        {
            SDL_SetHintWithPriority(SDL_HINT_NO_SIGNAL_HANDLERS, "0", SDL_HINT_DEFAULT);
            playUntil(SIGINT);
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(KelpPlayerSignals, AreSdlsWhereTheHostHasStartedIt) {
    smallMedia("long.mp4");
    EXPECT_EXIT(
        {
            CHILD_EXPECT(SDL_Init(SDL_INIT_VIDEO) == 0);
            playUntil(SIGINT);
        },
        testing::ExitedWithCode(0), "");
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

TEST_F(KelpPlayerTest, SetsTheLogLevelsOfTheProcess) {
    struct Row {
        const char* word;
        int ffmpeg;
        int engine;
    };
    const Row rows[] = {{"trace", 56, 4},   {"debug", 48, 4}, {"info", 32, 3},
                        {"warning", 24, 2}, {"error", 16, 1}, {"none", -8, -1}};
    const int oldFfmpeg = av_log_get_level();
    const int oldEngine = Log::GetLevel();
    for (const auto& row : rows) {
        av_log_set_level(7);
        Log::SetLevel(7);
        player->setOption("log_level", row.word);
        EXPECT_EQ(av_log_get_level(), row.ffmpeg) << row.word;
        EXPECT_EQ(Log::GetLevel(), row.engine) << row.word;
    }
    for (const char* word : {"", "Info", "info ", "inf", "warn", "quiet", "3"}) {
        av_log_set_level(7);
        Log::SetLevel(7);
        player->setOption("log_level", word);
        EXPECT_EQ(av_log_get_level(), 7) << word;
        EXPECT_EQ(Log::GetLevel(), 7) << word;
    }
    av_log_set_level(oldFfmpeg);
    Log::SetLevel(oldEngine);
}

TEST_F(KelpPlayerTest, HandsOtherOptionsToTheDemuxerAfterInit) {
    player->setOption("max_delay", "1");
    player->setOption("user_agent", "early");
    player->setOption(nullptr, "x");
    player->setOption("x", nullptr);
    init();
    player->setOption("reorder_queue_size", "42");
    player->setOption("no such option", "x");
    LogCapture log;
    player->loadFileAsync(smallMedia("audio.mp4").c_str(), 0);
    ASSERT_TRUE(waitUntil([&] { return recorder.has("prepared"); }));
    std::vector<std::string> set;
    for (const auto& line : log.lines()) {
        if (line.find("open, set key:") != std::string::npos) {
            set.push_back(line.substr(line.find("key:")));
        }
    }
    EXPECT_THAT(set, ElementsAre("key:buffer_size, value:-1\n", "key:max_delay, value:1000000\n",
                                 "key:no such option, value:x\n", "key:reorder_queue_size, value:42\n",
                                 "key:rtsp_transport, value:tcp\n", "key:stimeout, value:500000\n"));
}

TEST_F(KelpPlayerTest, ReadsItsOwnOptionsAtAnyTimeAndKeepsThem) {
    player->setOption("pictures", "shared");
    init();
    PlayTaskPeer peer(*task());
    EXPECT_TRUE(peer.options().sharedPictures);
    player->stop();
    EXPECT_TRUE(peer.options().sharedPictures);
    player->setOption("pictures", "packed");
    EXPECT_FALSE(peer.options().sharedPictures);
}

TEST_F(KelpPlayerTest, ListsTheTracksFromTheLoadToTheStop) {
    init();
    EXPECT_TRUE(player->getTracks().empty());
    std::vector<Track> inPrepared;
    recorder.then = [&](const auto& owner, const std::string&) { inPrepared = owner->getTracks(); };
    player->loadFileAsync(smallMedia("foreign.mkv").c_str(), 0);
    ASSERT_TRUE(waitUntil([&] { return recorder.has("prepared 1 1"); }));
    drain();
    ASSERT_EQ(inPrepared.size(), 2u);
    EXPECT_EQ(inPrepared[0].codec, "ffv1");
    EXPECT_FALSE(inPrepared[0].isPlayable);
    EXPECT_FALSE(inPrepared[0].isPlayed);
    EXPECT_EQ(inPrepared[1].codec, "aac");
    EXPECT_TRUE(inPrepared[1].isPlayed);
    player->stop();
    EXPECT_TRUE(player->getTracks().empty());
}

TEST_F(KelpPlayerTest, PlaysTheTracksThatTheHostWants) {
    init();
    player->setOption("video_track", "none");
    player->loadFileAsync(smallMedia("av.mp4").c_str(), 0);
    ASSERT_TRUE(waitUntil([&] { return recorder.has("prepared"); }));
    EXPECT_TRUE(player->play());
    ASSERT_TRUE(waitUntil([&] { return recorder.has("completed"); }));
    EXPECT_EQ(recorder.events().front(), "prepared 0 1");
    EXPECT_FALSE(recorder.has("video"));
    player->stop();
    player->setOption("audio_track", "none");
    player->loadFileAsync(smallMedia("av.mp4").c_str(), 0);
    ASSERT_TRUE(waitUntil([&] { return recorder.has("failed 1 0"); }));
}

TEST_F(KelpPlayerTest, KeepsItsOwnOptionsFromTheDemuxer) {
    init();
    player->setOption("pictures", "shared");
    player->setOption("pictures", "shard");
    LogCapture log;
    player->loadFileAsync(smallMedia("audio.mp4").c_str(), 0);
    ASSERT_TRUE(waitUntil([&] { return recorder.has("prepared"); }));
    EXPECT_TRUE(log.has("open, set key:"));
    EXPECT_FALSE(log.has("open, set key:pictures"));
}

TEST_F(KelpPlayerTest, NamesTheValuesThatAnOptionHasIfItIsGivenAnother) {
    init();
    player->setOption("pictures", "shared");
    LogCapture log;
    player->setOption("pictures", "shard");
    EXPECT_THAT(linesOf(log),
                ElementsAre("[KelpPlayer]: setOption, pictures can't be \"shard\", there is: packed, shared\n"));
    EXPECT_TRUE(PlayTaskPeer(*task()).options().sharedPictures);
    player->setOption("pictures", nullptr);
    EXPECT_TRUE(PlayTaskPeer(*task()).options().sharedPictures);
}

TEST_F(KelpPlayerTest, FollowsTheHostsClockThroughOneWrapper) {
    init();
    HostClock first(5000);
    HostClock second(9000);
    PlayTaskPeer peer(*task());
    player->setExternSyncClock(&first, 1000);
    const auto wrapper = KelpPlayerPeer::wrapper(*player);
    EXPECT_EQ(peer.syncObject(), wrapper);
    EXPECT_EQ(peer.syncObject()->getSyncPts(), 4000);
    player->setExternSyncClock(&second, -1);
    EXPECT_EQ(peer.syncObject(), wrapper);
    EXPECT_EQ(peer.syncObject()->getSyncPts(), 9001);

    player->setExternSyncClock(nullptr, 0);
    EXPECT_EQ(peer.syncObject(), nullptr);            // before the first playback
    EXPECT_EQ(wrapper->getNoSyncThreshold(), 10000);  // and nobody asks the host's clock any more
}

TEST_F(KelpPlayerTest, CutsNothingOffWhatHas64Bits) {
    init();
    HostClock clock(0x1'0000'0000);
    PlayTaskPeer peer(*task());
    player->setExternSyncClock(&clock, std::numeric_limits<int>::min());
    EXPECT_EQ(peer.syncObject()->getSyncPts(), 0x1'8000'0000);
    player->setExternSyncClock(nullptr, 0);
    peer.setSeekable(true, 0x1'0000'0005);
    EXPECT_EQ(player->getPlayDetailInfo(INFO_DURATION), 0x1'0000'0005);
}

// Sound that was made the master goes on following whom it followed, and the host ends its clock all the same.
TEST_F(KelpPlayerTest, LetsTheHostEndAClockThatItTookBack) {
    init();
    auto clock = std::make_unique<HostClock>(5000);
    player->setExternSyncClock(clock.get(), 0);
    player->loadFileAsync(smallMedia("long.mp4").c_str(), 0);
    ASSERT_TRUE(waitUntil([&] { return recorder.has("prepared"); }));
    ASSERT_TRUE(player->play());
    player->setAVSyncMode(SYNC_MASTER_AUDIO);
    PlayTaskPeer peer(*task());
    const auto followed = AudioPlayThreadPeer::followed(*peer.audioPlay());
    EXPECT_EQ(followed, KelpPlayerPeer::wrapper(*player));
    player->setExternSyncClock(nullptr, 0);
    clock.reset();
    EXPECT_EQ(AudioPlayThreadPeer::followed(*peer.audioPlay()), followed);
    // No threshold reaches that far, so that the sound plays as if it followed nobody.
    EXPECT_LT(followed->getSyncPts(), std::numeric_limits<int64_t>::min() / 4);
    EXPECT_FALSE(followed->isForceSync());
    EXPECT_TRUE(waitUntil([&] { return player->getCurrentTime() > 200; }));
}

// Set once, for all that is played.
TEST_F(KelpPlayerTest, ReadsTheHostsClockAgainAfterAStop) {
    init();
    HostClock clock(0);
    player->setExternSyncClock(&clock, 0);
    for (int playback = 1; playback <= 2; ++playback) {
        player->loadFileAsync(smallMedia("long.mp4").c_str(), 0);
        ASSERT_TRUE(waitUntil([&] { return recorder.count("prepared") == playback; }));
        ASSERT_TRUE(player->play());
        EXPECT_TRUE(waitUntil([&] { return clock.readings > 0; }));
        player->stop();
        clock.readings = 0;
    }
}

TEST_F(KelpPlayerTest, ReturnsToItsOwnClockAtOnce) {
    init();
    HostClock clock(0);
    player->setExternSyncClock(&clock, 0);
    player->loadFileAsync(smallMedia("long.mp4").c_str(), 0);
    ASSERT_TRUE(waitUntil([&] { return recorder.has("prepared"); }));
    ASSERT_TRUE(player->play());
    PlayTaskPeer peer(*task());
    EXPECT_EQ(VideoPlayThreadPeer::followed(*peer.videoPlay()), KelpPlayerPeer::wrapper(*player));
    player->setExternSyncClock(nullptr, 0);
    EXPECT_EQ(VideoPlayThreadPeer::followed(*peer.videoPlay()), peer.masterClock());
    EXPECT_EQ(AudioPlayThreadPeer::followed(*peer.audioPlay()), peer.masterClock());
    player->setAVSyncMode(SYNC_MASTER_AUDIO);
    EXPECT_EQ(VideoPlayThreadPeer::followed(*peer.videoPlay()), peer.audioPlay());
}

TEST_F(KelpPlayerTest, PassesCommandsOn) {
    init();
    int a = 0;
    EXPECT_TRUE(player->addWindow(WINDOW_TYPE_EXTERN, &a, 10, 20));
    player->updateWindowSize(&a, 30, 40);
    EXPECT_TRUE(player->pauseWindow(&a, true));
    PlayTaskPeer peer(*task());
    EXPECT_THAT(peer.windows(), ElementsAre(std::make_tuple(3, static_cast<void*>(&a), 30, 40)));
    EXPECT_TRUE(player->removeWindow(&a));
    EXPECT_THAT(peer.windows(), IsEmpty());
    player->clearScreen();

    player->enableHwDecoder(false, HW_DECODE_NONE);
    peer.raise(EVENT_COMPLETED, 0, 0, 0);
    VideoDecodeThreadObserver& decode = *task();
    decode.onVideoDecodeFailed();
    drain();
    EXPECT_THAT(recorder.events(), ElementsAre("completed", "failed 2 0"));

    peer.setSeekable(true, 10000);
    EXPECT_TRUE(player->seek(4000));
    EXPECT_EQ(player->getCurrentTime(), 4000);
    EXPECT_FALSE(player->setVolume(1.0f));
    player->setSpeed(1.0f);
}

TEST_F(KelpPlayerTest, SeeksWhilePaused) {
    init();
    player->loadFileAsync(smallMedia("long.mp4").c_str(), 0);
    ASSERT_TRUE(waitUntil([&] { return recorder.has("prepared"); }));
    ASSERT_TRUE(player->play());
    ASSERT_TRUE(waitUntil([&] { return recorder.has("video"); }));
    EXPECT_TRUE(player->pause());
    EXPECT_TRUE(player->seek(10000));
    ASSERT_TRUE(waitUntil([&] { return recorder.has("video 10000") || recorder.has("video 9960"); }));
    EXPECT_TRUE(waitUntil([&] { return player->getCurrentTime() >= 9960; }));
    const auto resumed = std::chrono::steady_clock::now();
    EXPECT_TRUE(player->resume());
    EXPECT_TRUE(waitUntil([&] { return player->getCurrentTime() > 10200; }));
    const int position = player->getCurrentTime();
    const std::chrono::duration<double, std::milli> sinceResumed = std::chrono::steady_clock::now() - resumed;
    EXPECT_LT(position, 10000 + sinceResumed.count() + 1000) << "it went on from the target, at speed 1";
}

}  // namespace
}  // namespace test
}  // namespace kelp
