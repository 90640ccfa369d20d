// A window that its owner destroys during playback. What X says then goes to the process's error handler: the one that
// Xlib starts with ends the process, those of UI toolkits go on. The handler is the host's affair, not the library's.

#include <gmock/gmock.h>

#include <atomic>

#include "e2e/media.h"
#include "e2e/playback.h"
#include "e2e/recording_sink.h"
#include "support/x_screen.h"

// Its macros bear names that gtest uses: it comes last.
#include <X11/Xlib.h>

namespace kelp::test {
namespace {

std::atomic<int> g_errors{0};

int countError(Display*, XErrorEvent*) {
    return ++g_errors;
}

TEST(DestroyedWindow, LeavesTheOtherWindowsAndThePlayerAlive) {
    XScreen screen(800, 600);
    const auto window = screen.createWindow(0, 0, 320, 180);
    RecordingSink sink(RecordingSink::Keep::Nothing);
    Playback playback;
    playback.player().addWindow(WINDOW_TYPE_QT_WINID, reinterpret_cast<void*>(window), 320, 180);
    playback.player().addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&sink), 320, 180);
    playback.player().setAVSyncMode(SYNC_MASTER_VIDEO);
    ASSERT_TRUE(playback.open(mediaPath("small.mp4")));
    ASSERT_TRUE(playback.player().play());
    ASSERT_TRUE(sink.waitForFrames(5, 60000));
    XSetErrorHandler(countError);
    screen.destroyWindows();
    ASSERT_TRUE(sink.waitForFrames(15, 60000));
    EXPECT_TRUE(playback.waitFor(Happened::Completed, 60000));
    EXPECT_EQ(playback.count(Happened::Failed), 0);
    EXPECT_TRUE(playback.player().stop());
    EXPECT_GT(g_errors, 0);
    XSetErrorHandler(nullptr);
}

}  // namespace
}  // namespace kelp::test
