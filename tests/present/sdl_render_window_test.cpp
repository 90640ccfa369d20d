#include <SDL.h>
#include <gmock/gmock.h>

#include <cstdlib>
#include <memory>

#include "kelp_player/log.h"
#include "present/sdl_render.h"
#include "present/video_frames.h"
#include "present/video_play_thread.h"
#include "support/fake_time.h"
#include "support/x_screen.h"

namespace kelp {
namespace {

using test::FakeTime;
using test::makePicture;
using test::Rgb;
using test::XScreen;
using testing::Pair;

constexpr test::Yuv kWhitePixel{.y = 235, .u = 128, .v = 128};
constexpr Rgb kWhite = {255, 255, 255};
constexpr Rgb kBlack = {0, 0, 0};
constexpr Rgb kGrey = {128, 128, 128};  // a native window nobody has drawn on

// Real windows on a screen of its own, at places that don't overlap.
class SDLRenderWindow : public testing::Test {
protected:
    static void SetUpTestSuite() {
        // Unless said otherwise nothing of the graphics driver, whose threads and leaks the sanitizers would report.
        setenv("SDL_RENDER_DRIVER", "software", 0);
        setenv("SDL_FRAMEBUFFER_ACCELERATION", "0", 0);
        setenv("SDL_SHUTDOWN_DBUS_ON_QUIT", "1", 1);
        screen = std::make_unique<XScreen>(800, 600);
        ASSERT_EQ(SDL_InitSubSystem(SDL_INIT_VIDEO), 0) << SDL_GetError();
        ASSERT_STREQ(SDL_GetCurrentVideoDriver(), "x11");
    }
    static void TearDownTestSuite() {
        SDL_Quit();  // lets its hints go, too
        screen.reset();
    }

    void SetUp() override { Log::SetLevel(0); }
    void TearDown() override {
        screen->destroyWindows();
        Log::SetLevel(level);
    }

    static void* makeWindow(int x, int y, int width, int height) {
        return reinterpret_cast<void*>(screen->createWindow(x, y, width, height));
    }
    static void expectColor(int x, int y, Rgb color) {
        EXPECT_TRUE(screen->waitForPixel(x, y, color, /*tolerance=*/0)) << x << "," << y;
    }

    void show(const std::shared_ptr<VideoFrameInfo>& frame) {
        EXPECT_TRUE(render.fillFrame(frame));
        EXPECT_TRUE(render.refresh());
    }

    static std::unique_ptr<XScreen> screen;
    const int level = Log::GetLevel();
    SDLRender render;
};

std::unique_ptr<XScreen> SDLRenderWindow::screen;

TEST_F(SDLRenderWindow, DrawsOnANativeWindow) {
    void* const window = makeWindow(0, 0, 200, 100);
    expectColor(50, 50, kGrey);
    ASSERT_TRUE(render.init(WINDOW_TYPE_QT_WINID, window, 200, 100, 25));
    const auto frame = makePicture(0, 32, 16, kWhitePixel);
    for (int y = 0; y < 16; ++y) {
        std::fill_n(frame->data[0] + y * 32 + 16, 16, uint8_t{16});  // the right half is black
    }
    show(frame);
    for (const auto& [x, y] : {std::pair{0, 0}, {90, 50}, {0, 99}}) {
        expectColor(x, y, kWhite);
    }
    for (const auto& [x, y] : {std::pair{199, 0}, {110, 50}, {199, 99}}) {
        expectColor(x, y, kBlack);
    }
    render.close();
}

TEST_F(SDLRenderWindow, TurnsAPictureWithinItsAspectRatio) {
    void* const window = makeWindow(0, 0, 200, 100);
    ASSERT_TRUE(render.init(WINDOW_TYPE_QT_WINID, window, 200, 100, 25));
    const auto frame = makePicture(0, 32, 16, kWhitePixel);
    frame->rotate = 90;
    show(frame);
    // 100 by 50 before turning: 50 wide and 100 high, from 75 to 125.
    for (const auto& [x, color] : {std::pair{72, kBlack}, {78, kWhite}, {100, kWhite}, {122, kWhite}, {128, kBlack}}) {
        expectColor(x, 3, color);
        expectColor(x, 96, color);
    }
    render.close();
}

TEST_F(SDLRenderWindow, GivesANativeWindowItsSize) {
    void* const window = makeWindow(0, 0, 100, 100);
    ASSERT_TRUE(render.init(WINDOW_TYPE_QT_WINID, window, 200, 150, 25));
    EXPECT_THAT(screen->windowSize(window), Pair(200, 150));
    show(makePicture(0, 32, 16, kWhitePixel));
    expectColor(199, 149, kWhite);

    EXPECT_TRUE(render.updateWindowSize(300, 80));
    EXPECT_THAT(screen->windowSize(window), Pair(300, 80));
    show(makePicture(40, 32, 16, kWhitePixel));
    expectColor(299, 79, kWhite);
    render.close();
}

TEST_F(SDLRenderWindow, LeavesANativeWindowBlackAndAlive) {
    void* const window = makeWindow(0, 0, 200, 100);
    ASSERT_TRUE(render.init(WINDOW_TYPE_QT_WINID, window, 200, 100, 25));
    show(makePicture(0, 32, 16, kWhitePixel));
    expectColor(100, 50, kWhite);
    render.close();
    expectColor(100, 50, kBlack);
    EXPECT_THAT(screen->windowSize(window), Pair(200, 100));
    // And it may be used again.
    SDLRender next;
    ASSERT_TRUE(next.init(WINDOW_TYPE_QT_WINID, window, 200, 100, 25));
    next.fillFrame(makePicture(0, 32, 16, kWhitePixel));
    EXPECT_TRUE(next.refresh());
    expectColor(100, 50, kWhite);
    next.close();
}

TEST_F(SDLRenderWindow, DrawsOnAnSdlWindowOfTheHostAndLeavesItBlack) {
    SDL_Window* window = SDL_CreateWindow("host", 10, 10, 160, 120, SDL_WINDOW_BORDERLESS);
    ASSERT_NE(window, nullptr) << SDL_GetError();
    ASSERT_TRUE(render.init(WINDOW_TYPE_SDL, window, 640, 480, 25));
    show(makePicture(0, 32, 16, kWhitePixel));
    expectColor(169, 129, kWhite);
    int width = 0;
    int height = 0;
    SDL_GetWindowSize(window, &width, &height);
    EXPECT_EQ(width, 160);  // its size is the host's until it is changed
    EXPECT_EQ(height, 120);
    render.close();
    expectColor(90, 70, kBlack);
    SDL_DestroyWindow(window);
}

TEST_F(SDLRenderWindow, ShowsThePicturesOfThePlayThread) {
    FakeTime::reset();
    void* const first = makeWindow(0, 0, 100, 100);
    void* const second = makeWindow(200, 0, 100, 100);
    VideoPlayThread thread(/*isLive=*/false, nullptr);
    thread.addWindow(WINDOW_TYPE_QT_WINID, first, 100, 100);
    thread.addWindow(WINDOW_TYPE_QT_WINID, second, 100, 100);
    thread.start(25);
    thread.fillFrame(makePicture(0, 32, 16, kWhitePixel));
    expectColor(50, 50, kWhite);
    expectColor(250, 50, kWhite);
    // A later window is drawn with the picture that stands, which is the one that can be cleared.
    void* const third = makeWindow(100, 0, 100, 100);
    thread.addWindow(WINDOW_TYPE_QT_WINID, third, 100, 100);
    expectColor(150, 50, kWhite);

    thread.pauseWindow(second, true);
    thread.clearScreen();
    expectColor(50, 50, kBlack);
    expectColor(250, 50, kWhite);

    thread.pauseWindow(second, false);
    thread.removeWindow(first);
    thread.removeWindow(third);
    thread.fillFrame(makePicture(40, 32, 16, {.y = 235, .u = 128, .v = 128}));
    expectColor(250, 50, kWhite);
    expectColor(50, 50, kBlack);
    thread.stop();
    expectColor(250, 50, kBlack);
}

}  // namespace
}  // namespace kelp
