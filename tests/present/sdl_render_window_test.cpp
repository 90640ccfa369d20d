#include <gmock/gmock.h>

#include "kelp_player/log.h"
#include "present/sdl_render.h"
#include "present/video_frames.h"
#include "present/video_play_thread.h"
#include "present/x_server.h"
#include "support/fake_time.h"

namespace kelp {
namespace {

using test::FakeTime;
using test::makePicture;
using test::XServer;
using test::XWindow;
using testing::Pair;

constexpr test::Yuv kWhitePixel{.y = 235, .u = 128, .v = 128};
constexpr unsigned int kWhite = 0xffffff;
constexpr unsigned int kBlack = 0;
constexpr unsigned int kBlue = 0x0000ff;  // a native window nobody has drawn on

// Real windows on a screen of its own.
class SDLRenderWindow : public testing::Test {
protected:
    static void SetUpTestSuite() {
        server = std::make_unique<XServer>();
        ASSERT_TRUE(server->isRunning()) << server->error();
        ASSERT_EQ(SDL_InitSubSystem(SDL_INIT_VIDEO), 0) << SDL_GetError();
        ASSERT_STREQ(SDL_GetCurrentVideoDriver(), "x11");
    }
    static void TearDownTestSuite() {
        SDL_Quit();  // lets its hints go, too
        server.reset();
    }

    void SetUp() override {
        ASSERT_TRUE(server && server->isRunning());
        Log::SetLevel(0);
    }
    void TearDown() override { Log::SetLevel(level); }

    void show(const std::shared_ptr<VideoFrameInfo>& frame) {
        EXPECT_TRUE(render.fillFrame(frame));
        EXPECT_TRUE(render.refresh());
    }

    static std::unique_ptr<XServer> server;
    const int level = Log::GetLevel();
    SDLRender render;
};

std::unique_ptr<XServer> SDLRenderWindow::server;

TEST_F(SDLRenderWindow, DrawsOnANativeWindow) {
    XWindow window(*server, 0, 0, 200, 100);
    EXPECT_EQ(window.waitForColor(50, 50, kBlue), kBlue);
    ASSERT_TRUE(render.init(WINDOW_TYPE_QT_WINID, window.handle(), 200, 100, 25));
    const auto frame = makePicture(0, 32, 16, kWhitePixel);
    for (int y = 0; y < 16; ++y) {
        std::fill_n(frame->data[0] + y * 32 + 16, 16, uint8_t{16});  // the right half is black
    }
    show(frame);
    for (const auto& [x, y] : {std::pair{0, 0}, {90, 50}, {0, 99}}) {
        EXPECT_EQ(window.waitForColor(x, y, kWhite), kWhite) << x << "," << y;
    }
    for (const auto& [x, y] : {std::pair{199, 0}, {110, 50}, {199, 99}}) {
        EXPECT_EQ(window.waitForColor(x, y, kBlack), kBlack) << x << "," << y;
    }
    render.close();
}

TEST_F(SDLRenderWindow, TurnsAPictureWithinItsAspectRatio) {
    XWindow window(*server, 0, 0, 200, 100);
    ASSERT_TRUE(render.init(WINDOW_TYPE_QT_WINID, window.handle(), 200, 100, 25));
    const auto frame = makePicture(0, 32, 16, kWhitePixel);
    frame->rotate = 90;
    show(frame);
    // 100 by 50 before turning: 50 wide and 100 high, from 75 to 125.
    for (const auto& [x, color] : {std::pair{72, kBlack}, {78, kWhite}, {100, kWhite}, {122, kWhite}, {128, kBlack}}) {
        EXPECT_EQ(window.waitForColor(x, 3, color), color) << x;
        EXPECT_EQ(window.waitForColor(x, 96, color), color) << x;
    }
    render.close();
}

TEST_F(SDLRenderWindow, GivesANativeWindowItsSize) {
    XWindow window(*server, 0, 0, 100, 100);
    ASSERT_TRUE(render.init(WINDOW_TYPE_QT_WINID, window.handle(), 200, 150, 25));
    EXPECT_THAT(window.size(), Pair(200, 150));
    show(makePicture(0, 32, 16, kWhitePixel));
    EXPECT_EQ(window.waitForColor(199, 149, kWhite), kWhite);

    EXPECT_TRUE(render.updateWindowSize(300, 80));
    EXPECT_THAT(window.size(), Pair(300, 80));
    show(makePicture(40, 32, 16, kWhitePixel));
    EXPECT_EQ(window.waitForColor(299, 79, kWhite), kWhite);
    render.close();
}

TEST_F(SDLRenderWindow, LeavesANativeWindowBlackAndAlive) {
    XWindow window(*server, 0, 0, 200, 100);
    ASSERT_TRUE(render.init(WINDOW_TYPE_QT_WINID, window.handle(), 200, 100, 25));
    show(makePicture(0, 32, 16, kWhitePixel));
    EXPECT_EQ(window.waitForColor(100, 50, kWhite), kWhite);
    render.close();
    EXPECT_EQ(window.waitForColor(100, 50, kBlack), kBlack);
    EXPECT_THAT(window.size(), Pair(200, 100));
    // And it may be used again.
    SDLRender next;
    ASSERT_TRUE(next.init(WINDOW_TYPE_QT_WINID, window.handle(), 200, 100, 25));
    next.fillFrame(makePicture(0, 32, 16, kWhitePixel));
    EXPECT_TRUE(next.refresh());
    EXPECT_EQ(window.waitForColor(100, 50, kWhite), kWhite);
    next.close();
}

TEST_F(SDLRenderWindow, DrawsOnAnSdlWindowOfTheHostAndLeavesItBlack) {
    SDL_Window* window = SDL_CreateWindow("host", 10, 10, 160, 120, SDL_WINDOW_BORDERLESS);
    ASSERT_NE(window, nullptr) << SDL_GetError();
    ASSERT_TRUE(render.init(WINDOW_TYPE_SDL, window, 640, 480, 25));
    show(makePicture(0, 32, 16, kWhitePixel));
    EXPECT_EQ(test::waitForColor(*server, window, 159, 119, kWhite), kWhite);
    int width = 0;
    int height = 0;
    SDL_GetWindowSize(window, &width, &height);
    EXPECT_EQ(width, 160);  // its size is the host's until it is changed
    EXPECT_EQ(height, 120);
    render.close();
    EXPECT_EQ(test::waitForColor(*server, window, 80, 60, kBlack), kBlack);
    SDL_DestroyWindow(window);
}

TEST_F(SDLRenderWindow, ShowsThePicturesOfThePlayThread) {
    FakeTime::reset();
    XWindow first(*server, 0, 0, 100, 100);
    XWindow second(*server, 200, 0, 100, 100);
    VideoPlayThread thread(/*isLive=*/false, nullptr);
    thread.addWindow(WINDOW_TYPE_QT_WINID, first.handle(), 100, 100);
    thread.addWindow(WINDOW_TYPE_QT_WINID, second.handle(), 100, 100);
    thread.start(25);
    thread.fillFrame(makePicture(0, 32, 16, kWhitePixel));
    EXPECT_EQ(first.waitForColor(50, 50, kWhite), kWhite);
    EXPECT_EQ(second.waitForColor(50, 50, kWhite), kWhite);
    // A later window is drawn with the picture that stands, which is the one that can be cleared.
    XWindow third(*server, 100, 0, 100, 100);
    thread.addWindow(WINDOW_TYPE_QT_WINID, third.handle(), 100, 100);
    EXPECT_EQ(third.waitForColor(50, 50, kWhite), kWhite);

    thread.pauseWindow(second.handle(), true);
    thread.clearScreen();
    EXPECT_EQ(first.waitForColor(50, 50, kBlack), kBlack);
    EXPECT_EQ(second.waitForColor(50, 50, kWhite), kWhite);

    thread.pauseWindow(second.handle(), false);
    thread.removeWindow(first.handle());
    thread.removeWindow(third.handle());
    thread.fillFrame(makePicture(40, 32, 16, {.y = 235, .u = 128, .v = 128}));
    EXPECT_EQ(second.waitForColor(50, 50, kWhite), kWhite);
    EXPECT_EQ(first.waitForColor(50, 50, kBlack), kBlack);
    thread.stop();
    EXPECT_EQ(second.waitForColor(50, 50, kBlack), kBlack);
}

}  // namespace
}  // namespace kelp
