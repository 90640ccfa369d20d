#include "present/video_play_fixture.h"

namespace kelp {
namespace {

using test::handle;
using test::LogCapture;
using test::makePicture;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using Peer = VideoPlayThreadPeer;

// The fixture's window is 0x1, a native one of 640 by 480.
class VideoPlayThreadWindows : public test::VideoPlayFixture {
protected:
    std::vector<std::string> callsOfDrawing(int64_t pts) {
        renders.clearCalls();
        Peer::draw(thread, makePicture(pts));
        return renders.calls();
    }
    std::vector<std::string> callsOfRedraw() {
        renders.clearCalls();
        Peer::idle(thread);
        return renders.calls();
    }
};

TEST_F(VideoPlayThreadWindows, GetTheirRendererAtTheFirstDrawing) {
    LogCapture log;
    EXPECT_THAT(renders.calls(), IsEmpty());
    EXPECT_THAT(callsOfDrawing(40), ElementsAre("1 init type:1 window:0x1 640x480 fps:0", "1 fill 40", "1 refresh"));
    EXPECT_THAT(callsOfDrawing(80), ElementsAre("1 fill 80", "1 refresh"));
    EXPECT_THAT(log.lines(), ElementsAre("[VideoPlayThread]: renderFrame, window info size:1, add 0x1\n"));
}

TEST_F(VideoPlayThreadWindows, AreClearedWithoutAPicture) {
    EXPECT_THAT(callsOfRedraw(), ElementsAre("1 init type:1 window:0x1 640x480 fps:0", "1 refresh"));
}

TEST_F(VideoPlayThreadWindows, AllShowTheSamePictureInTheOrderOfAdding) {
    LogCapture log;
    EXPECT_TRUE(thread.addWindow(WINDOW_TYPE_SDL, handle(9), 320, 240));
    EXPECT_TRUE(thread.addWindow(WINDOW_TYPE_EXTERN, handle(2), 0, 0));
    EXPECT_THAT(log.lines(), ElementsAre("[VideoPlayThread]: addWindow, window info size:1, window:0x9\n",
                                         "[VideoPlayThread]: addWindow, window info size:2, window:0x2\n"));
    EXPECT_THAT(callsOfDrawing(40), ElementsAre("1 init type:1 window:0x1 640x480 fps:0", "1 fill 40", "1 refresh",
                                                "2 init type:2 window:0x9 320x240 fps:0", "2 fill 40", "2 refresh",
                                                "3 init type:3 window:0x2 0x0 fps:0", "3 fill 40", "3 refresh"));
}

TEST_F(VideoPlayThreadWindows, ShowTheLastPictureAgainWhenNothingElseComes) {
    output(40);
    EXPECT_THAT(callsOfRedraw(), ElementsAre("1 fill 40", "1 refresh"));
}

TEST_F(VideoPlayThreadWindows, GoAtTheDrawingAfterTheirRemoval) {
    thread.addWindow(WINDOW_TYPE_SDL, handle(9), 320, 240);
    output(40);
    renders.clearCalls();
    LogCapture log;
    EXPECT_TRUE(thread.removeWindow(handle(1)));
    EXPECT_THAT(log.lines(), ElementsAre("[VideoPlayThread]: removeWindow, window info size:2, window:0x1\n"));
    EXPECT_THAT(renders.calls(), IsEmpty());
    log.clear();
    EXPECT_THAT(callsOfDrawing(80), ElementsAre("1 close", "1 gone", "2 fill 80", "2 refresh"));
    EXPECT_THAT(log.lines(), ElementsAre("[VideoPlayThread]: renderFrame, window info size:2, remove 0x1\n"));
    EXPECT_EQ(Peer::windowCount(thread), 1U);
}

TEST_F(VideoPlayThreadWindows, GoWithoutACallIfTheyNeverHadARenderer) {
    thread.removeWindow(handle(1));
    EXPECT_THAT(callsOfDrawing(40), IsEmpty());
    EXPECT_EQ(Peer::windowCount(thread), 0U);
}

TEST_F(VideoPlayThreadWindows, ThatAreUnknownCanBeRemovedPausedAndResized) {
    EXPECT_TRUE(thread.removeWindow(handle(7)));
    EXPECT_TRUE(thread.pauseWindow(handle(7), true));
    thread.updateWindowSize(handle(7), 1, 1);
    EXPECT_THAT(callsOfDrawing(40), ElementsAre("1 init type:1 window:0x1 640x480 fps:0", "1 fill 40", "1 refresh"));
}

TEST_F(VideoPlayThreadWindows, KeepTheirRendererIfTheyAreAddedAgainBeforeTheyWent) {
    output(40);
    thread.removeWindow(handle(1));
    thread.addWindow(WINDOW_TYPE_QT_WINID, handle(1), 640, 480);
    EXPECT_THAT(callsOfDrawing(80), ElementsAre("1 fill 80", "1 refresh"));
}

TEST_F(VideoPlayThreadWindows, KeepTypeAndPauseIfTheyAreAddedAgain) {
    output(40);
    thread.pauseWindow(handle(1), true);
    thread.addWindow(WINDOW_TYPE_EXTERN, handle(1), 800, 600);
    EXPECT_THAT(callsOfDrawing(80), ElementsAre("1 size 800x600"));
}

TEST_F(VideoPlayThreadWindows, KeepTheTypeOfTheFirstAddIfTheyHaveNoRendererYet) {
    thread.addWindow(WINDOW_TYPE_EXTERN, handle(1), 640, 480);
    EXPECT_THAT(callsOfDrawing(40), ElementsAre("1 init type:1 window:0x1 640x480 fps:0", "1 fill 40", "1 refresh"));
}

TEST_F(VideoPlayThreadWindows, GetANewRendererIfTheyAreAddedAfterTheyWent) {
    output(40);
    thread.removeWindow(handle(1));
    Peer::draw(thread, makePicture(80));
    thread.addWindow(WINDOW_TYPE_SDL, handle(1), 64, 48);
    EXPECT_THAT(callsOfDrawing(120), ElementsAre("2 init type:2 window:0x1 64x48 fps:0", "2 fill 120", "2 refresh"));
}

TEST_F(VideoPlayThreadWindows, AddedTwiceGetOneChangeOfSize) {
    thread.addWindow(WINDOW_TYPE_QT_WINID, handle(1), 800, 600);
    EXPECT_EQ(Peer::windowCount(thread), 1U);
    EXPECT_THAT(callsOfDrawing(40),
                ElementsAre("1 init type:1 window:0x1 640x480 fps:0", "1 size 800x600", "1 fill 40", "1 refresh"));
    EXPECT_THAT(callsOfDrawing(80), ElementsAre("1 fill 80", "1 refresh"));
}

TEST_F(VideoPlayThreadWindows, GetTheirNewSizeOnceAtTheNextDrawing) {
    output(40);
    LogCapture log;
    thread.updateWindowSize(handle(1), 1, 2);
    thread.updateWindowSize(handle(1), 800, 480);
    EXPECT_EQ(log.lines().front(), "[VideoPlayThread]: updateWindowSize, window info size:1\n");
    EXPECT_THAT(callsOfRedraw(), ElementsAre("1 size 800x480", "1 fill 40", "1 refresh"));
    EXPECT_THAT(callsOfRedraw(), ElementsAre("1 fill 40", "1 refresh"));
    thread.updateWindowSize(handle(1), 800, 481);
    EXPECT_THAT(callsOfRedraw(), ElementsAre("1 size 800x481", "1 fill 40", "1 refresh"));
}

TEST_F(VideoPlayThreadWindows, TakeASizeOf0WithoutTellingTheRenderer) {
    output(40);
    thread.updateWindowSize(handle(1), 0, 480);
    EXPECT_THAT(callsOfRedraw(), ElementsAre("1 fill 40", "1 refresh"));
    EXPECT_THAT(Peer::windowSize(thread, 0), Pair(0, 480));
    thread.updateWindowSize(handle(1), 640, -1);
    EXPECT_THAT(callsOfRedraw(), ElementsAre("1 fill 40", "1 refresh"));
    EXPECT_THAT(Peer::windowSize(thread, 0), Pair(640, -1));
    // Back to what the renderer has: a change for the list.
    thread.updateWindowSize(handle(1), 640, 480);
    EXPECT_THAT(callsOfRedraw(), ElementsAre("1 size 640x480", "1 fill 40", "1 refresh"));
}

TEST_F(VideoPlayThreadWindows, KeepTheirPictureWhilePaused) {
    output(40);
    LogCapture log;
    EXPECT_TRUE(thread.pauseWindow(handle(1), true));
    EXPECT_THAT(log.lines(), ElementsAre("[VideoPlayThread]: pauseWindow, window info size:1, window:0x1, pause:1\n"));
    EXPECT_THAT(callsOfDrawing(80), IsEmpty());
    thread.updateWindowSize(handle(1), 10, 10);
    EXPECT_THAT(callsOfDrawing(120), ElementsAre("1 size 10x10"));
    EXPECT_TRUE(thread.pauseWindow(handle(1), false));
    EXPECT_THAT(callsOfDrawing(160), ElementsAre("1 fill 160", "1 refresh"));
}

TEST_F(VideoPlayThreadWindows, ThatArePausedBeforeTheFirstDrawingGetARendererAllTheSame) {
    thread.pauseWindow(handle(1), true);
    EXPECT_THAT(callsOfDrawing(40), ElementsAre("1 init type:1 window:0x1 640x480 fps:0"));
    thread.removeWindow(handle(1));
    EXPECT_THAT(callsOfDrawing(80), ElementsAre("1 close", "1 gone"));
}

TEST_F(VideoPlayThreadWindows, OfAnUnknownTypeAreTriedAtEachDrawing) {
    thread.removeWindow(handle(1));
    thread.addWindow(static_cast<WindowType>(4), handle(3), 640, 480);
    thread.updateWindowSize(handle(3), 800, 600);
    Peer::draw(thread, makePicture(0));
    LogCapture log;
    EXPECT_THAT(callsOfDrawing(40), IsEmpty());
    EXPECT_THAT(callsOfDrawing(80), IsEmpty());
    EXPECT_THAT(log.lines(), ElementsAre("[VideoPlayThread]: renderFrame, window info size:1, add 0x3\n",
                                         "[VideoPlayThread]: renderFrame, window info size:1, add 0x3\n"));
    EXPECT_THAT(Peer::windowSize(thread, 0), Pair(640, 480));
}

TEST_F(VideoPlayThreadWindows, WithoutAHandleStayInTheListAndShowNothing) {
    thread.addWindow(WINDOW_TYPE_SDL, nullptr, 640, 480);
    Peer::draw(thread, makePicture(0));
    LogCapture log;
    EXPECT_THAT(callsOfDrawing(40), ElementsAre("1 fill 40", "1 refresh"));
    EXPECT_THAT(log.lines(), IsEmpty());
    EXPECT_EQ(Peer::windowCount(thread), 2U);
}

TEST_F(VideoPlayThreadWindows, AreLeftWhereTheyAreOnceAStopIsRequested) {
    thread.addWindow(WINDOW_TYPE_SDL, handle(9), 320, 240);
    output(40);
    renders.onRefresh = [this](int64_t pts) {
        if (pts == 80) {
            thread.stop();
        }
    };
    EXPECT_THAT(callsOfDrawing(80), ElementsAre("1 fill 80", "1 refresh"));
    EXPECT_THAT(callsOfDrawing(120), IsEmpty());
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
    EXPECT_EQ(Peer::windowCount(thread), 0U);
    EXPECT_THAT(log.lines(),
                ElementsAre("[VideoPlayThread]: onExit\n", "[VideoPlayThread]: onExit, window info size:3\n"));
}

TEST_F(VideoPlayThreadWindows, CanBeChangedFromWithinADrawing) {
    renders.onRefresh = [this](int64_t) {
        renders.onRefresh = [](int64_t) {};
        thread.addWindow(WINDOW_TYPE_SDL, handle(9), 320, 240);
        thread.removeWindow(handle(1));
    };
    Peer::draw(thread, makePicture(40));
    EXPECT_THAT(callsOfDrawing(80),
                ElementsAre("1 close", "1 gone", "2 init type:2 window:0x9 320x240 fps:0", "2 fill 80", "2 refresh"));
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

}  // namespace
}  // namespace kelp
