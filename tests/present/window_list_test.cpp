#include "present/window_list.h"

#include <gmock/gmock.h>

#include "present/fake_renders.h"
#include "present/video_frames.h"
#include "support/log_capture.h"

namespace kelp {

namespace {

using test::handle;
using test::LogCapture;
using test::makePicture;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using ListPeer = WindowListPeer;

// The window is 0x1, a native one of 640 by 480.
class WindowListDrawing : public testing::Test {
protected:
    WindowListDrawing() { windows.add(WINDOW_TYPE_QT_WINID, handle(1), 640, 480); }

    void draw(std::shared_ptr<VideoFrameInfo> frame) {
        last = std::move(frame);
        windows.draw(last, /*fps=*/0);
    }
    std::vector<std::string> callsOfDrawing(int64_t pts) {
        renders.clearCalls();
        draw(makePicture(pts));
        return renders.calls();
    }
    std::vector<std::string> callsOfRedraw() {
        renders.clearCalls();
        windows.draw(last, /*fps=*/0);
        return renders.calls();
    }

    test::FakeRenders renders;
    std::shared_ptr<VideoFrameInfo> last;
    bool stopped = false;
    WindowList windows{[this] { return stopped; }};
};

TEST_F(WindowListDrawing, GetTheirRendererAtTheFirstDrawing) {
    LogCapture log;
    EXPECT_THAT(renders.calls(), IsEmpty());
    EXPECT_THAT(callsOfDrawing(40), ElementsAre("1 init type:1 window:0x1 640x480 fps:0", "1 fill 40", "1 refresh"));
    EXPECT_THAT(callsOfDrawing(80), ElementsAre("1 fill 80", "1 refresh"));
    EXPECT_THAT(log.lines(), ElementsAre("[VideoPlayThread]: renderFrame, window info size:1, add 0x1\n"));
}

TEST_F(WindowListDrawing, AllShowTheSamePictureInTheOrderOfAdding) {
    LogCapture log;
    windows.add(WINDOW_TYPE_SDL, handle(9), 320, 240);
    windows.add(WINDOW_TYPE_EXTERN, handle(2), 0, 0);
    EXPECT_THAT(log.lines(), ElementsAre("[VideoPlayThread]: addWindow, window info size:1, window:0x9\n",
                                         "[VideoPlayThread]: addWindow, window info size:2, window:0x2\n"));
    EXPECT_THAT(callsOfDrawing(40), ElementsAre("1 init type:1 window:0x1 640x480 fps:0", "1 fill 40", "1 refresh",
                                                "2 init type:2 window:0x9 320x240 fps:0", "2 fill 40", "2 refresh",
                                                "3 init type:3 window:0x2 0x0 fps:0", "3 fill 40", "3 refresh"));
}

TEST_F(WindowListDrawing, GoAtTheDrawingAfterTheirRemoval) {
    windows.add(WINDOW_TYPE_SDL, handle(9), 320, 240);
    draw(makePicture(40));
    renders.clearCalls();
    LogCapture log;
    windows.remove(handle(1));
    EXPECT_THAT(log.lines(), ElementsAre("[VideoPlayThread]: removeWindow, window info size:2, window:0x1\n"));
    EXPECT_THAT(renders.calls(), IsEmpty());
    log.clear();
    EXPECT_THAT(callsOfDrawing(80), ElementsAre("1 close", "1 gone", "2 fill 80", "2 refresh"));
    EXPECT_THAT(log.lines(), ElementsAre("[VideoPlayThread]: renderFrame, window info size:2, remove 0x1\n"));
    EXPECT_EQ(ListPeer::count(windows), 1U);
}

TEST_F(WindowListDrawing, GoWithoutACallIfTheyNeverHadARenderer) {
    windows.remove(handle(1));
    EXPECT_THAT(callsOfDrawing(40), IsEmpty());
    EXPECT_EQ(ListPeer::count(windows), 0U);
}

TEST_F(WindowListDrawing, ThatAreUnknownCanBeRemovedPausedAndResized) {
    windows.remove(handle(7));
    windows.pause(handle(7), true);
    windows.resize(handle(7), 1, 1);
    EXPECT_THAT(callsOfDrawing(40), ElementsAre("1 init type:1 window:0x1 640x480 fps:0", "1 fill 40", "1 refresh"));
}

TEST_F(WindowListDrawing, KeepTheirRendererIfTheyAreAddedAgainBeforeTheyWent) {
    draw(makePicture(40));
    windows.remove(handle(1));
    windows.add(WINDOW_TYPE_QT_WINID, handle(1), 640, 480);
    EXPECT_THAT(callsOfDrawing(80), ElementsAre("1 fill 80", "1 refresh"));
}

TEST_F(WindowListDrawing, KeepTypeAndPauseIfTheyAreAddedAgain) {
    draw(makePicture(40));
    windows.pause(handle(1), true);
    windows.add(WINDOW_TYPE_EXTERN, handle(1), 800, 600);
    EXPECT_THAT(callsOfDrawing(80), ElementsAre("1 size 800x600"));
}

TEST_F(WindowListDrawing, KeepTheTypeOfTheFirstAddIfTheyHaveNoRendererYet) {
    windows.add(WINDOW_TYPE_EXTERN, handle(1), 640, 480);
    EXPECT_THAT(callsOfDrawing(40), ElementsAre("1 init type:1 window:0x1 640x480 fps:0", "1 fill 40", "1 refresh"));
}

TEST_F(WindowListDrawing, GetANewRendererIfTheyAreAddedAfterTheyWent) {
    draw(makePicture(40));
    windows.remove(handle(1));
    draw(makePicture(80));
    windows.add(WINDOW_TYPE_SDL, handle(1), 64, 48);
    EXPECT_THAT(callsOfDrawing(120), ElementsAre("2 init type:2 window:0x1 64x48 fps:0", "2 fill 120", "2 refresh"));
}

TEST_F(WindowListDrawing, AddedTwiceGetOneChangeOfSize) {
    windows.add(WINDOW_TYPE_QT_WINID, handle(1), 800, 600);
    EXPECT_EQ(ListPeer::count(windows), 1U);
    EXPECT_THAT(callsOfDrawing(40),
                ElementsAre("1 init type:1 window:0x1 640x480 fps:0", "1 size 800x600", "1 fill 40", "1 refresh"));
    EXPECT_THAT(callsOfDrawing(80), ElementsAre("1 fill 80", "1 refresh"));
}

TEST_F(WindowListDrawing, GetTheirNewSizeOnceAtTheNextDrawing) {
    draw(makePicture(40));
    LogCapture log;
    windows.resize(handle(1), 1, 2);
    windows.resize(handle(1), 800, 480);
    EXPECT_EQ(log.lines().front(), "[VideoPlayThread]: updateWindowSize, window info size:1\n");
    EXPECT_THAT(callsOfRedraw(), ElementsAre("1 size 800x480", "1 fill 40", "1 refresh"));
    EXPECT_THAT(callsOfRedraw(), ElementsAre("1 fill 40", "1 refresh"));
    windows.resize(handle(1), 800, 481);
    EXPECT_THAT(callsOfRedraw(), ElementsAre("1 size 800x481", "1 fill 40", "1 refresh"));
}

TEST_F(WindowListDrawing, TakeASizeOf0WithoutTellingTheRenderer) {
    draw(makePicture(40));
    windows.resize(handle(1), 0, 480);
    EXPECT_THAT(callsOfRedraw(), ElementsAre("1 fill 40", "1 refresh"));
    EXPECT_THAT(ListPeer::size(windows, 0), Pair(0, 480));
    windows.resize(handle(1), 640, 0);
    EXPECT_THAT(callsOfRedraw(), ElementsAre("1 fill 40", "1 refresh"));
    windows.resize(handle(1), 640, -1);
    EXPECT_THAT(callsOfRedraw(), ElementsAre("1 fill 40", "1 refresh"));
    EXPECT_THAT(ListPeer::size(windows, 0), Pair(640, -1));
    // Back to what the renderer has: a change for the list.
    windows.resize(handle(1), 640, 480);
    EXPECT_THAT(callsOfRedraw(), ElementsAre("1 size 640x480", "1 fill 40", "1 refresh"));
}

TEST_F(WindowListDrawing, LearnHowThePicturesLieInThemBeforeTheFirstOne) {
    windows.setFit(PictureFit::Keep);
    EXPECT_THAT(callsOfDrawing(40),
                ElementsAre("1 init type:1 window:0x1 640x480 fps:0", "1 fit keep", "1 fill 40", "1 refresh"));
    windows.add(WINDOW_TYPE_SDL, handle(9), 320, 240);
    windows.setFit(PictureFit::Keep);
    EXPECT_THAT(callsOfRedraw(), ElementsAre("1 fill 40", "1 refresh", "2 init type:2 window:0x9 320x240 fps:0",
                                             "2 fit keep", "2 fill 40", "2 refresh"));
}

TEST_F(WindowListDrawing, LearnOfAnotherFitWhilePausedToo) {
    windows.add(WINDOW_TYPE_SDL, handle(9), 320, 240);
    draw(makePicture(40));
    windows.pause(handle(9), true);
    windows.setFit(PictureFit::Keep);
    EXPECT_THAT(callsOfRedraw(), ElementsAre("1 fit keep", "1 fill 40", "1 refresh", "2 fit keep"));
    windows.setFit(PictureFit::Fill);
    windows.setFit(PictureFit::Keep);
    EXPECT_THAT(callsOfRedraw(), ElementsAre("1 fill 40", "1 refresh"));
    windows.setFit(PictureFit::Fill);
    EXPECT_THAT(callsOfRedraw(), ElementsAre("1 fit fill", "1 fill 40", "1 refresh", "2 fit fill"));
}

TEST_F(WindowListDrawing, KeepTheirPictureWhilePaused) {
    draw(makePicture(40));
    LogCapture log;
    windows.pause(handle(1), true);
    EXPECT_THAT(log.lines(), ElementsAre("[VideoPlayThread]: pauseWindow, window info size:1, window:0x1, pause:1\n"));
    EXPECT_THAT(callsOfDrawing(80), IsEmpty());
    windows.resize(handle(1), 10, 10);
    EXPECT_THAT(callsOfDrawing(120), ElementsAre("1 size 10x10"));
    windows.pause(handle(1), false);
    EXPECT_THAT(callsOfDrawing(160), ElementsAre("1 fill 160", "1 refresh"));
}

TEST_F(WindowListDrawing, ThatArePausedBeforeTheFirstDrawingGetARendererAllTheSame) {
    windows.pause(handle(1), true);
    EXPECT_THAT(callsOfDrawing(40), ElementsAre("1 init type:1 window:0x1 640x480 fps:0"));
    windows.remove(handle(1));
    EXPECT_THAT(callsOfDrawing(80), ElementsAre("1 close", "1 gone"));
}

TEST_F(WindowListDrawing, OfAnUnknownTypeAreTriedAtEachDrawing) {
    windows.remove(handle(1));
    windows.add(static_cast<WindowType>(4), handle(3), 640, 480);
    windows.resize(handle(3), 800, 600);
    draw(makePicture(0));
    LogCapture log;
    EXPECT_THAT(callsOfDrawing(40), IsEmpty());
    EXPECT_THAT(callsOfDrawing(80), IsEmpty());
    EXPECT_THAT(log.lines(), ElementsAre("[VideoPlayThread]: renderFrame, window info size:1, add 0x3\n",
                                         "[VideoPlayThread]: renderFrame, window info size:1, add 0x3\n"));
    EXPECT_THAT(ListPeer::size(windows, 0), Pair(640, 480));
}

TEST_F(WindowListDrawing, WithoutAHandleStayInTheListAndShowNothing) {
    windows.add(WINDOW_TYPE_SDL, nullptr, 640, 480);
    draw(makePicture(0));
    LogCapture log;
    EXPECT_THAT(callsOfDrawing(40), ElementsAre("1 fill 40", "1 refresh"));
    EXPECT_THAT(log.lines(), IsEmpty());
    EXPECT_EQ(ListPeer::count(windows), 2U);
}

TEST_F(WindowListDrawing, AreLeftWhereTheyAreOnceAStopIsRequested) {
    windows.add(WINDOW_TYPE_SDL, handle(9), 320, 240);
    draw(makePicture(40));
    renders.onRefresh = [this](int64_t pts) {
        if (pts == 80) {
            stopped = true;
        }
    };
    EXPECT_THAT(callsOfDrawing(80), ElementsAre("1 fill 80", "1 refresh"));
    EXPECT_THAT(callsOfDrawing(120), IsEmpty());
}

TEST_F(WindowListDrawing, CanBeChangedFromWithinADrawing) {
    renders.onRefresh = [this](int64_t) {
        renders.onRefresh = [](int64_t) {};
        windows.add(WINDOW_TYPE_SDL, handle(9), 320, 240);
        windows.remove(handle(1));
    };
    draw(makePicture(40));
    EXPECT_THAT(callsOfDrawing(80),
                ElementsAre("1 close", "1 gone", "2 init type:2 window:0x9 320x240 fps:0", "2 fill 80", "2 refresh"));
}

}  // namespace
}  // namespace kelp
