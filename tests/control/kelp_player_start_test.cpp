// How a player starts the libraries of the process, once, and leaves its signals alone.

#include <SDL.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "control/kelp_player_fixture.h"
#include "kelp_player/log.h"

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/log.h>
}

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

namespace kelp::test {
namespace {

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

}  // namespace
}  // namespace kelp::test
