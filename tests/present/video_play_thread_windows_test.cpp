#include "present/video_play_fixture.h"

namespace kelp {
namespace {

using test::FakeTime;
using test::handle;
using test::LogCapture;
using test::Shown;
using testing::ElementsAre;
using Peer = VideoPlayThreadPeer;

// The fixture's window is 0x1, a native one of 640 by 480.
class VideoPlayThreadWindows : public test::VideoPlayFixture {
protected:
    std::vector<std::string> callsOfRedraw() {
        renders.clearCalls();
        Peer::idle(thread);
        return renders.calls();
    }
};

TEST_F(VideoPlayThreadWindows, CanBeAskedForAnythingWithSuccess) {
    for (const uintptr_t number : {1, 7}) {  // known and unknown
        EXPECT_TRUE(thread.pauseWindow(handle(number), true));
        EXPECT_TRUE(thread.pauseWindow(handle(number), false));
        EXPECT_TRUE(thread.removeWindow(handle(number)));
        thread.updateWindowSize(handle(number), 800, 600);
        EXPECT_TRUE(thread.addWindow(WINDOW_TYPE_SDL, handle(number), 320, 240));
    }
    EXPECT_THAT(callsOfRedraw(), ElementsAre("1 init type:1 window:0x1 640x480 fps:0", "1 size 320x240", "1 refresh",
                                             "2 init type:2 window:0x7 320x240 fps:0", "2 refresh"));
}

TEST_F(VideoPlayThreadWindows, AreClearedWithoutAPicture) {
    EXPECT_THAT(callsOfRedraw(), ElementsAre("1 init type:1 window:0x1 640x480 fps:0", "1 refresh"));
}

TEST_F(VideoPlayThreadWindows, ShowTheLastPictureAgainWhenNothingElseComes) {
    output(40);
    EXPECT_THAT(callsOfRedraw(), ElementsAre("1 fill 40", "1 refresh"));
}

TEST_F(VideoPlayThreadWindows, AreAllClosedAndForgottenAtTheEnd) {
    thread.addWindow(WINDOW_TYPE_SDL, handle(9), 320, 240);
    output(40);
    thread.addWindow(WINDOW_TYPE_SDL, handle(10), 320, 240);
    thread.removeWindow(handle(9));
    renders.clearCalls();
    LogCapture log;
    Peer::exit(thread);
    EXPECT_THAT(renders.calls(), ElementsAre("1 close", "2 close", "1 gone", "2 gone"));
    EXPECT_EQ(WindowListPeer::count(Peer::windows(thread)), 0U);
    EXPECT_THAT(log.lines(),
                ElementsAre("[VideoPlayThread]: onExit\n", "[VideoPlayThread]: onExit, window info size:3\n"));
}

TEST_F(VideoPlayThreadWindows, KeepTheirPictureAtTheEndIfThatIsWanted) {
    output(40);
    renders.clearCalls();
    thread.setLeaving(WindowList::Leaving::Picture);
    Peer::exit(thread);
    EXPECT_THAT(renders.calls(), ElementsAre("1 leave", "1 gone"));
}

TEST_F(VideoPlayThreadWindows, AreLetBeUntilThereIsAPictureWhereAnotherOneStands) {
    int relieved = 0;
    thread.takeOver([&] {
        EXPECT_TRUE(renders.calls().empty());
        ++relieved;
    });
    EXPECT_TRUE(callsOfRedraw().empty());
    EXPECT_FALSE(thread.hasDrawn());
    EXPECT_EQ(relieved, 0);
    output(40);
    EXPECT_EQ(relieved, 1);
    EXPECT_TRUE(thread.hasDrawn());
    EXPECT_THAT(renders.calls(), ElementsAre("1 init type:1 window:0x1 640x480 fps:0", "1 fill 40", "1 refresh"));
    output(80);
    EXPECT_EQ(relieved, 1);
}

TEST_F(VideoPlayThreadWindows, AreServedWhileALongFrameWaits) {
    output(0);
    renders.onRefresh = [this](int64_t) {
        if (elapsed() == 15) {
            thread.updateWindowSize(handle(1), 800, 600);
        }
    };
    renders.clearCalls();
    output(60);
    EXPECT_THAT(renders.calls(), ElementsAre("1 fill 0", "1 refresh", "1 fill 0", "1 refresh",  // at 0 and 15
                                             "1 size 800x600", "1 fill 0", "1 refresh",         // at 30
                                             "1 fill 60", "1 refresh"));  // at 60, after a sleep of 15
}

// Players whose pictures come at different times wake together in between.
TEST_F(VideoPlayThreadWindows, AreServedAtMultiplesOf5Ms) {
    output(0);
    output(43);  // the window's adding was asked for
    FakeTime::reset(FakeTime::nowMs());
    output(83);
    output(125);
    EXPECT_THAT(FakeTime::sleeps(), ElementsAre(12, 15, 13, 12, 15, 15));
    EXPECT_THAT(refreshes(), ElementsAre(Shown{0, 0}, Shown{0, 0}, Shown{15, 0}, Shown{43, 43}, Shown{43, 43},
                                         Shown{55, 43}, Shown{83, 83}, Shown{83, 83}, Shown{95, 83}, Shown{125, 125}));
}

TEST_F(VideoPlayThreadWindows, AreServedNoMoreOftenForThatAndEvery15MsAtTheLatest) {
    output(0);
    FakeTime::advanceMs(1000);
    int64_t pts = 1000;
    output(pts);
    for (int waitMs = 1; waitMs <= 100; ++waitMs) {
        FakeTime::reset(FakeTime::nowMs());
        const size_t drawn = renders.refreshes().size();
        output(pts += waitMs);
        const auto rests = FakeTime::sleeps();
        EXPECT_EQ(rests.size(), static_cast<size_t>((waitMs + 14) / 15)) << waitMs;
        EXPECT_EQ(renders.refreshes().size() - drawn, rests.size()) << waitMs;
        EXPECT_THAT(rests, testing::Each(testing::Le(15))) << waitMs;
        EXPECT_EQ(FakeTime::sleptMs(), waitMs);
    }
}

}  // namespace
}  // namespace kelp
