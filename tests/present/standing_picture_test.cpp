#include <SDL.h>
#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "kelp_player/frame_sink.h"
#include "kelp_player/log.h"
#include "present/sdl_calls.h"
#include "present/video_play_fixture.h"

namespace kelp {
namespace {

using test::FakeTime;
using test::kStart;
using test::makePacketPicture;
using test::makePicture;
using testing::ElementsAre;
using testing::IsEmpty;
using Peer = VideoPlayThreadPeer;

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

class TimedSink : public ExternFrameSink {
public:
    void onVideoSize(int, int, int) override {}
    bool onVideoFrame(int, int64_t pts, uint8_t**, int*, int, int64_t) override {
        shown.emplace_back(FakeTime::nowMs() - kStart, pts);
        return true;
    }

    std::vector<std::pair<int64_t, int64_t>> shown;  // when, and which
};

#pragma GCC diagnostic pop

// A play thread whose thread is the test, with the real renderers on windows of SDL's dummy driver. The first of two
// windows is added.
class StandingPicture : public testing::Test {
protected:
    static void SetUpTestSuite() { ASSERT_EQ(SDL_InitSubSystem(SDL_INIT_VIDEO), 0) << SDL_GetError(); }
    static void TearDownTestSuite() { SDL_QuitSubSystem(SDL_INIT_VIDEO); }

    StandingPicture() {
        FakeTime::reset(kStart);
        Log::SetLevel(0);
        for (auto& window : windows) {
            window = SDL_CreateWindow("host", 0, 0, 64, 48, 0);
        }
        sdl.onPresent = [this](SDL_Window* window) {
            drawings.emplace_back(FakeTime::nowMs() - kStart, window == windows[0] ? 1 : 2);
        };
        add(1);
    }
    ~StandingPicture() override {
        FakeTime::setManual(false);
        thread.stop();
        Peer::exit(thread);
        for (auto* window : windows) {
            SDL_DestroyWindow(window);
        }
        Log::SetLevel(level);
    }

    void add(int window) { thread.addWindow(WINDOW_TYPE_SDL, handle(window), 64, 48); }
    void* handle(int window) { return windows.at(static_cast<size_t>(window - 1)); }
    bool output(const std::shared_ptr<VideoFrameInfo>& frame) { return Peer::output(thread, frame); }
    bool output(int64_t pts) { return output(makePicture(pts)); }

    // As often as a paused thread or one without frames comes by.
    void idle(int times) {
        for (int i = 0; i < times; ++i) {
            FakeTime::advanceMs(50);
            Peer::idle(thread);
        }
    }

    // Runs the thread up to its rest ahead of a picture that is due after a second.
    void startAndWait() {
        FakeTime::setManual(true);
        thread.start(25);
        thread.fillFrame(makePicture(0));
        thread.fillFrame(makePicture(1000));
        ASSERT_TRUE(FakeTime::runFor(15, /*threads=*/1));  // the window's adding was asked for
        drawn();
    }

    // What was drawn since the last call: when, and on which window.
    std::vector<std::pair<int64_t, int>> drawn() { return std::exchange(drawings, {}); }

    // How often a texture was filled since the last call.
    int64_t fills() {
        const auto isFill = [](const std::string& call) { return call.starts_with("UpdateYUVTexture"); };
        const auto count = std::count_if(sdl.calls.begin(), sdl.calls.end(), isFill);
        sdl.calls.clear();
        return count;
    }

    const int level = Log::GetLevel();
    std::vector<std::pair<int64_t, int>> drawings;
    test::SdlCalls sdl;
    std::array<SDL_Window*, 2> windows{};
    VideoPlayThread thread{/*isLive=*/false, /*renderTiming=*/nullptr};
};

using At = std::pair<int64_t, int>;

TEST_F(StandingPicture, IsDrawnOnceWhileTheNextOneWaits) {
    add(2);
    for (const int64_t pts : {0, 40, 80}) {
        output(pts);
    }
    EXPECT_THAT(drawn(), ElementsAre(At{0, 1}, At{0, 2}, At{40, 1}, At{40, 2}, At{80, 1}, At{80, 2}));
    EXPECT_EQ(fills(), 6);
}

// A window that was covered, and nobody told.
TEST_F(StandingPicture, IsDrawnAgainAfter100MsWithoutFillingTheTexture) {
    output(0);
    output(250);
    EXPECT_THAT(drawn(), ElementsAre(At{0, 1}, At{100, 1}, At{200, 1}, At{250, 1}));
    EXPECT_EQ(fills(), 2);
}

TEST_F(StandingPicture, IsDrawnEvery100MsWhilePaused) {
    const auto frame = makePicture(1000);
    output(frame);
    thread.pause(true);
    for (int i = 0; i < 5; ++i) {
        FakeTime::advanceMs(50);
        EXPECT_TRUE(output(frame));
    }
    EXPECT_THAT(drawn(), ElementsAre(At{0, 1}, At{100, 1}, At{200, 1}));
    EXPECT_EQ(fills(), 1);
}

TEST_F(StandingPicture, IsDrawnEvery100MsWhileNoneComes) {
    output(0);
    idle(5);
    EXPECT_THAT(drawn(), ElementsAre(At{0, 1}, At{100, 1}, At{200, 1}));
    EXPECT_EQ(fills(), 1);
}

TEST_F(StandingPicture, IsDrawnEvery100MsWhileTheNextOneIsHeldForAMaster) {
    output(0);
    const auto master = std::make_shared<test::FakeMaster>(0);
    master->forcing = true;
    thread.setSyncObject(master);
    const auto next = makePicture(500);
    for (int i = 0; i < 3; ++i) {
        EXPECT_FALSE(output(next));
        FakeTime::advanceMs(50);
    }
    const auto all = drawn();
    EXPECT_GE(all.size(), 12U);
    for (size_t i = 1; i < all.size(); ++i) {
        EXPECT_GE(all[i].first - all[i - 1].first, 100);
    }
    EXPECT_EQ(fills(), 1);
}

TEST_F(StandingPicture, GivesWayToAnotherOneOfTheSameTimeAfterASeek) {
    output(1000);
    Peer::seekStart(thread, 1000);
    FakeTime::advanceMs(10);
    output(1000);
    EXPECT_THAT(drawn(), ElementsAre(At{0, 1}, At{10, 1}));
    EXPECT_EQ(fills(), 2);
}

TEST_F(StandingPicture, IsDrawnAtOnceWhenItIsBlanked) {
    const auto frame = makePicture(1000);
    for (const bool paused : {false, true}) {
        output(frame);
        thread.pause(paused);
        drawn();
        fills();
        thread.clearScreen();
        FakeTime::advanceMs(10);
        paused ? static_cast<void>(output(frame)) : Peer::idle(thread);
        EXPECT_EQ(drawn().size(), 1U) << paused;
        EXPECT_EQ(fills(), 1) << paused;
        EXPECT_EQ(sdl.pixel(32, 24).r, 0);
        idle(1);
        EXPECT_THAT(drawn(), IsEmpty()) << paused;
    }
}

TEST_F(StandingPicture, IsDrawnInANewSizeOnce) {
    output(0);
    drawn();
    fills();
    thread.updateWindowSize(handle(1), 100, 50);
    idle(1);
    EXPECT_THAT(drawn(), ElementsAre(At{50, 1}));
    EXPECT_EQ(fills(), 1);  // into a new texture
    idle(1);
    EXPECT_THAT(drawn(), IsEmpty());
    // A host that tells the size it had.
    thread.updateWindowSize(handle(1), 100, 50);
    Peer::idle(thread);
    EXPECT_THAT(drawn(), ElementsAre(At{100, 1}));
    EXPECT_EQ(fills(), 0);
}

TEST_F(StandingPicture, FollowsASizeThatNobodyTold) {
    output(0);
    drawn();
    fills();
    SDL_SetWindowSize(windows[0], 100, 50);
    idle(2);
    EXPECT_THAT(drawn(), ElementsAre(At{50, 1}));
    EXPECT_EQ(fills(), 1);
}

TEST_F(StandingPicture, IsDrawnOnANewWindowAlone) {
    output(0);
    add(2);
    idle(1);
    EXPECT_THAT(drawn(), ElementsAre(At{0, 1}, At{50, 2}));
    idle(2);
    EXPECT_THAT(drawn(), ElementsAre(At{100, 1}, At{150, 2}));
    EXPECT_EQ(fills(), 2);
}

TEST_F(StandingPicture, IsDrawnAtTheEndOfAWindowsPause) {
    add(2);
    output(0);
    thread.pauseWindow(handle(2), true);
    output(40);
    EXPECT_THAT(drawn(), ElementsAre(At{0, 1}, At{0, 2}, At{40, 1}));
    idle(2);
    EXPECT_THAT(drawn(), ElementsAre(At{140, 1}));
    fills();
    thread.pauseWindow(handle(2), false);
    Peer::idle(thread);
    EXPECT_THAT(drawn(), ElementsAre(At{140, 2}));
    EXPECT_EQ(fills(), 1);  // with the picture that came meanwhile
    // What the host has drawn there in a short pause goes, too.
    thread.pauseWindow(handle(2), true);
    thread.pauseWindow(handle(2), false);
    FakeTime::advanceMs(10);
    Peer::idle(thread);
    EXPECT_THAT(drawn(), ElementsAre(At{150, 2}));
    EXPECT_EQ(fills(), 0);
}

TEST_F(StandingPicture, IsDrawnOnAWindowThatIsAddedAnew) {
    output(0);
    drawn();
    thread.removeWindow(handle(1));
    add(1);  // before it went
    Peer::idle(thread);
    EXPECT_THAT(drawn(), ElementsAre(At{0, 1}));
    EXPECT_EQ(fills(), 1);
    thread.removeWindow(handle(1));
    Peer::idle(thread);
    EXPECT_THAT(drawn(), ElementsAre(At{0, 1}));  // black
    add(1);
    Peer::idle(thread);
    EXPECT_THAT(drawn(), ElementsAre(At{0, 1}));
    EXPECT_EQ(fills(), 1);
}

TEST_F(StandingPicture, IsTriedEachTimeAsLongAsItFails) {
    for (const char* failing : {"UpdateYUVTexture", "RenderCopyEx", "CreateTexture"}) {
        sdl.failing = {failing};
        output(0);
        Peer::idle(thread);
        sdl.calls.clear();
        Peer::idle(thread);
        EXPECT_TRUE(std::any_of(sdl.calls.begin(), sdl.calls.end(), [&](const std::string& call) {
            return call.starts_with(failing);
        })) << failing;
        sdl.failing.clear();
        drawn();
        Peer::idle(thread);
        EXPECT_EQ(drawn().size(), 1U) << failing;
        Peer::idle(thread);
        EXPECT_THAT(drawn(), IsEmpty()) << failing;
        thread.removeWindow(handle(1));
        Peer::idle(thread);
        add(1);
    }
    output(makePacketPicture(40));
    sdl.calls.clear();
    Peer::idle(thread);
    EXPECT_FALSE(sdl.calls.empty());
}

TEST_F(StandingPicture, IsTriedEachTimeThoughItWasDrawnInAnotherSize) {
    output(0);
    sdl.failing = {"CreateTexture"};
    thread.updateWindowSize(handle(1), 100, 50);
    Peer::idle(thread);
    drawn();
    sdl.failing.clear();
    Peer::idle(thread);
    EXPECT_THAT(drawn(), ElementsAre(At{0, 1}));
}

TEST_F(StandingPicture, IsDrawnAgainWhenTheWallClockIsSetBack) {
    output(0);
    FakeTime::setNowMs(kStart - 1);
    Peer::idle(thread);
    EXPECT_THAT(drawn(), ElementsAre(At{0, 1}, At{-1, 1}));
}

TEST_F(StandingPicture, IsBlackEvery100MsBeforeTheFirst) {
    Peer::idle(thread);
    idle(4);
    EXPECT_THAT(drawn(), ElementsAre(At{0, 1}, At{100, 1}, At{200, 1}));
    EXPECT_EQ(sdl.pixel(32, 24).r, 0);
}

// A sink is told each time that a window may be drawn.
TEST_F(StandingPicture, GoesToASinkEachTime) {
    TimedSink sink;
    thread.addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&sink), 0, 0);
    const auto frame = makePicture(100);
    output(0);
    output(frame);
    EXPECT_THAT(std::exchange(sink.shown, {}),
                ElementsAre(At{0, 0}, At{0, 0}, At{15, 0}, At{30, 0}, At{45, 0}, At{60, 0}, At{75, 0}, At{100, 100}));
    idle(2);
    EXPECT_THAT(std::exchange(sink.shown, {}), ElementsAre(At{150, 100}, At{200, 100}));
    thread.pause(true);
    for (int i = 0; i < 2; ++i) {
        FakeTime::advanceMs(50);
        output(frame);
    }
    EXPECT_THAT(sink.shown, ElementsAre(At{250, 100}, At{300, 100}));
    EXPECT_THAT(drawn(), ElementsAre(At{0, 1}, At{100, 1}, At{200, 1}, At{300, 1}));
    EXPECT_EQ(fills(), 2);
}

// Nothing but a picture, a window's 100 ms and what nobody tells wakes a thread that has windows alone.
TEST_F(StandingPicture, LetsTheThreadRestUntilTheNextOneIsDue) {
    output(0);
    output(40);
    output(73);
    output(213);
    EXPECT_THAT(FakeTime::sleeps(), ElementsAre(15, 25, 33, 50, 50, 40));  // after the adding of the window
    thread.removeWindow(handle(1));
    output(300);
    EXPECT_THAT(FakeTime::sleeps(), ElementsAre(15, 25, 33, 50, 50, 40, 15, 50, 22));
}

TEST_F(StandingPicture, KeepsTheThreadServingASinkOrAFailureEvery15Ms) {
    output(0);
    sdl.failing = {"CreateTexture"};
    thread.updateWindowSize(handle(1), 100, 50);
    output(40);
    EXPECT_THAT(FakeTime::sleeps(), ElementsAre(15, 15, 10));
    sdl.failing.clear();
    TimedSink sink;
    thread.addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&sink), 0, 0);
    output(80);
    EXPECT_THAT(FakeTime::sleeps(), ElementsAre(15, 15, 10, 15, 15, 10));
}

TEST_F(StandingPicture, DoesNotMakeTheNextOneLateByItsDrawing) {
    output(0);
    sdl.onPresent = [this, note = sdl.onPresent](SDL_Window* window) {
        note(window);
        FakeTime::advanceMs(10);
    };
    output(130);
    EXPECT_THAT(drawn(), ElementsAre(At{0, 1}, At{100, 1}, At{130, 1}));
}

TEST_F(StandingPicture, IsServedAtOnceThoughTheThreadRests) {
    startAndWait();
    const auto ask = [this](const auto& request) {
        EXPECT_TRUE(FakeTime::runFor(15, /*threads=*/1));
        EXPECT_THAT(drawn(), IsEmpty());
        request();
        EXPECT_TRUE(FakeTime::waitForSleepers(1));
        return drawn();
    };
    EXPECT_THAT(ask([this] { thread.updateWindowSize(handle(1), 100, 50); }), ElementsAre(At{30, 1}));
    EXPECT_THAT(ask([this] { add(2); }), ElementsAre(At{45, 2}));
    EXPECT_THAT(ask([this] { thread.pauseWindow(handle(2), true); }), IsEmpty());
    EXPECT_THAT(ask([this] { thread.pauseWindow(handle(2), false); }), ElementsAre(At{75, 2}));
    EXPECT_THAT(ask([this] { thread.clearScreen(); }), ElementsAre(At{90, 1}, At{90, 2}));
    EXPECT_THAT(ask([this] { thread.removeWindow(handle(2)); }), ElementsAre(At{105, 2}));  // black
}

TEST_F(StandingPicture, IsServedEvery15MsIfItIsAskedForAllTheTime) {
    startAndWait();
    thread.updateWindowSize(handle(1), 100, 50);
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    EXPECT_THAT(drawn(), ElementsAre(At{15, 1}));
    for (const int64_t timeMs : {30, 45}) {
        thread.updateWindowSize(handle(1), 100, 50);
        ASSERT_TRUE(FakeTime::waitForSleepers(1));
        EXPECT_THAT(drawn(), IsEmpty());
        ASSERT_TRUE(FakeTime::runFor(15, /*threads=*/1));
        EXPECT_THAT(drawn(), ElementsAre(At{timeMs, 1}));
    }
}

TEST_F(StandingPicture, StandsNoLongerThanTheMasterThatTheNextOneWaitsFor) {
    output(0);
    const auto master = std::make_shared<test::FakeMaster>(-8000);
    master->forcing = true;
    thread.setSyncObject(master);
    sdl.onPresent = [this, note = sdl.onPresent](SDL_Window* window) {
        note(window);
        if (FakeTime::nowMs() == kStart + 6000) {
            thread.setSyncObject(nullptr);
        }
    };
    output(40);
    EXPECT_EQ(drawn().back(), At(6000, 1));
    EXPECT_EQ(FakeTime::nowMs(), kStart + 6000);
}

}  // namespace
}  // namespace kelp
