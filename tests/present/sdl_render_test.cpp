#include "present/sdl_render.h"

#include <gmock/gmock.h>

#include <thread>

#include "decode/decoded_frame.h"
#include "kelp_player/log.h"
#include "present/sdl_calls.h"
#include "present/video_frames.h"
#include "support/log_capture.h"

namespace kelp {
namespace {

using test::LogCapture;
using test::makePacketPicture;
using test::makePicture;
using test::SdlCalls;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::IsSupersetOf;
using testing::Not;

const std::vector<std::string> kBlack{"GetRendererOutputSize", "SetRenderDrawColor 0 0 0 255", "RenderClear"};

// The renderer of software draws on a window of SDL's dummy driver, which nobody sees.
class SDLRenderTest : public testing::Test {
protected:
    static void SetUpTestSuite() { ASSERT_EQ(SDL_InitSubSystem(SDL_INIT_VIDEO), 0) << SDL_GetError(); }
    static void TearDownTestSuite() { SDL_QuitSubSystem(SDL_INIT_VIDEO); }

    void SetUp() override {
        Log::SetLevel(0);
        window = SDL_CreateWindow("host", 0, 0, 64, 48, 0);
        ASSERT_NE(window, nullptr) << SDL_GetError();
    }
    void TearDown() override {
        render.close();
        if (window) {
            SDL_DestroyWindow(window);
        }
        Log::SetLevel(level);
    }

    bool init() {
        const bool done = render.init(WINDOW_TYPE_SDL, window, 64, 48, 25);
        sdl.calls.clear();
        return done;
    }

    // Shows a picture; the calls that it took, without the first ones that make the output black.
    std::vector<std::string> show(const std::shared_ptr<VideoFrameInfo>& frame, bool expected = true) {
        sdl.calls.clear();
        EXPECT_TRUE(render.fillFrame(frame));
        EXPECT_THAT(sdl.calls, IsEmpty());
        EXPECT_EQ(render.refresh(), expected);
        EXPECT_EQ(std::vector<std::string>(sdl.calls.begin(), sdl.calls.begin() + 3), kBlack);
        return {sdl.calls.begin() + 3, sdl.calls.end()};
    }

    // Where a picture goes that is turned by `rotate`: the rectangle before turning.
    std::string destination(int width, int height, int rotate) {
        // A large block is not needed: the picture's sizes alone decide, and the texture stays as it is.
        const auto frame = makePicture(0, 16, 8);
        show(frame);
        frame->width = width;
        frame->height = height;
        frame->rotate = rotate;
        for (const auto& call : show(frame)) {
            if (call.starts_with("RenderCopyEx")) {
                return call.substr(call.find(" to ") + 4);
            }
        }
        return "not drawn";
    }

    void expectColor(int x, int y, SdlCalls::Color expected) {
        const auto color = sdl.pixel(x, y);
        EXPECT_NEAR(color.r, expected.r, 8) << "at " << x << "," << y;
        EXPECT_NEAR(color.g, expected.g, 8) << "at " << x << "," << y;
        EXPECT_NEAR(color.b, expected.b, 8) << "at " << x << "," << y;
    }

    const int level = Log::GetLevel();
    SdlCalls sdl;
    SDL_Window* window = nullptr;
    SDLRender render;
};

TEST_F(SDLRenderTest, DrawsIntoAWindowOfTheHost) {
    LogCapture log;
    EXPECT_TRUE(render.init(WINDOW_TYPE_SDL, window, 64, 48, 25));
    // No accelerated renderer with the dummy driver; no size and no hint for a window of the host.
    EXPECT_THAT(sdl.calls, ElementsAre("CreateRenderer -1 6", "CreateRenderer -1 0", "GetRendererInfo"));
    char line[96];
    std::snprintf(line, sizeof(line), "[SDLRender]: unknown window type: 2, window:%p\n", static_cast<void*>(window));
    EXPECT_EQ(log.lines().front(), line);
    EXPECT_EQ(log.count("[SDLRender]: render driver info, i:"), SDL_GetNumRenderDrivers());
    EXPECT_TRUE(log.has("[SDLRender]: Failed to initialize a hardware accelerated renderer: "));
    EXPECT_EQ(log.lines().back(), "[SDLRender]: Initialized software renderer.\n");
}

TEST_F(SDLRenderTest, WrapsANativeWindow) {
    sdl.windowFrom = window;
    LogCapture log;
    EXPECT_TRUE(render.init(WINDOW_TYPE_QT_WINID, reinterpret_cast<void*>(0x77), 320, 240, 25));
    EXPECT_THAT(sdl.calls,
                ElementsAre("CreateWindowFrom", "SetWindowSize 320x240", "SetHint SDL_RENDER_SCALE_QUALITY=linear",
                            "CreateRenderer -1 6", "CreateRenderer -1 0", "GetRendererInfo"));
    char line[128];
    EXPECT_EQ(log.lines().at(0), "[SDLRender]: window type is QT winid, start create window:0x77, 320x240\n");
    std::snprintf(line, sizeof(line),
                  "[SDLRender]: window type is QT winid, create window succeed, window:0x77, window_:%p\n",
                  static_cast<void*>(window));
    EXPECT_EQ(log.lines().at(1), line);
    sdl.calls.clear();
    render.close();
    EXPECT_THAT(sdl.calls, ElementsAre("SetRenderDrawColor 0 0 0 255", "RenderClear", "RenderPresent",
                                       "DestroyRenderer", "DestroyWindow"));
    window = nullptr;
    SDL_SetHint(SDL_HINT_RENDER_SCALE_QUALITY, "nearest");
}

TEST_F(SDLRenderTest, FailsWithoutAWindowToWrap) {
    sdl.failing = {"CreateWindowFrom"};
    LogCapture log;
    EXPECT_FALSE(render.init(WINDOW_TYPE_QT_WINID, reinterpret_cast<void*>(0x77), 320, 240, 25));
    EXPECT_THAT(sdl.calls, ElementsAre("CreateWindowFrom"));
    EXPECT_EQ(log.lines().back(), "[SDLRender]: Failed to create window: made to fail\n");
    EXPECT_FALSE(render.refresh());
    EXPECT_TRUE(render.updateWindowSize(10, 10));
    sdl.calls.clear();
    render.close();
    EXPECT_THAT(sdl.calls, IsEmpty());
}

TEST_F(SDLRenderTest, FailsWithoutARenderer) {
    sdl.failing = {"CreateRenderer"};
    LogCapture log;
    EXPECT_FALSE(init());
    EXPECT_TRUE(log.has("[SDLRender]: Failed to initialize a hardware accelerated renderer: made to fail\n"));
    EXPECT_EQ(log.lines().back(), "[SDLRender]: Failed to create window or renderer: made to fail");
    EXPECT_TRUE(render.fillFrame(makePicture(0)));
    EXPECT_FALSE(render.refresh());
    EXPECT_THAT(sdl.calls, IsEmpty());
}

TEST_F(SDLRenderTest, LetsAWindowGoThatHasNoRenderer) {
    sdl.windowFrom = window;
    sdl.failing = {"CreateRenderer"};
    EXPECT_FALSE(render.init(WINDOW_TYPE_QT_WINID, reinterpret_cast<void*>(0x77), 320, 240, 25));
    sdl.calls.clear();
    render.close();
    EXPECT_THAT(sdl.calls, ElementsAre("DestroyWindow"));
    window = nullptr;
    SDL_SetHint(SDL_HINT_RENDER_SCALE_QUALITY, "nearest");
}

TEST_F(SDLRenderTest, TakesTheAcceleratedRendererIfThereIsOne) {
    sdl.failing = {"CreateRenderer -1 0"};  // any other call than the first
    SDL_SetHint(SDL_HINT_RENDER_DRIVER, "software");
    sdl.calls.clear();
    LogCapture log;
    EXPECT_TRUE(render.init(WINDOW_TYPE_SDL, window, 64, 48, 25));
    EXPECT_THAT(sdl.calls, ElementsAre("CreateRenderer -1 6", "GetRendererInfo"));
    EXPECT_FALSE(log.has("Failed"));
    SDL_SetHint(SDL_HINT_RENDER_DRIVER, "");
}

TEST_F(SDLRenderTest, FailsWithARendererThatKnowsNoTextures) {
    sdl.noTextureFormats = true;
    LogCapture log;
    EXPECT_FALSE(init());
    EXPECT_TRUE(log.has("[SDLRender]: Failed to create window or renderer: "));
    // The renderer stays until close.
    render.close();
    EXPECT_THAT(sdl.calls,
                ElementsAre("SetRenderDrawColor 0 0 0 255", "RenderClear", "RenderPresent", "DestroyRenderer"));
}

TEST_F(SDLRenderTest, FailsIfTheRendererTellsNothing) {
    sdl.failing = {"GetRendererInfo"};
    EXPECT_FALSE(init());
}

TEST_F(SDLRenderTest, IsBlackBeforeTheFirstPicture) {
    init();
    EXPECT_TRUE(render.refresh());
    EXPECT_THAT(sdl.calls, ElementsAre(kBlack[0], kBlack[1], kBlack[2], "RenderPresent"));
    expectColor(0, 0, {0, 0, 0});
    expectColor(63, 47, {0, 0, 0});
}

TEST_F(SDLRenderTest, DrawsNothingBeforeInit) {
    EXPECT_TRUE(render.fillFrame(makePicture(0)));
    EXPECT_FALSE(render.refresh());
    EXPECT_THAT(sdl.calls, IsEmpty());
}

TEST_F(SDLRenderTest, DrawsAPictureStraightFromItsPlanes) {
    init();
    EXPECT_THAT(show(makePicture(0, 16, 8)),
                ElementsAre("SetYUVConversionMode 3", "CreateTexture SDL_PIXELFORMAT_IYUV 1 16x8",
                            "SetTextureBlendMode 0", "UpdateYUVTexture null pitch 16 8 8, u at 128, v at 160",
                            "RenderCopyEx from null to null angle 0 center null flip 0", "SetYUVConversionMode 3",
                            "RenderPresent"));
}

TEST_F(SDLRenderTest, KeepsItsTextureFromPictureToPicture) {
    init();
    show(makePicture(0));
    std::vector<std::string> expected{
        "SetYUVConversionMode 3", "UpdateYUVTexture null pitch 16 8 8, u at 128, v at 160",
        "RenderCopyEx from null to null angle 0 center null flip 0", "SetYUVConversionMode 3", "RenderPresent"};
    const auto frame = makePicture(40);
    EXPECT_EQ(show(frame), expected);
    // And draws the same picture again from what the texture holds, given once more or not.
    expected.erase(expected.begin() + 1);
    EXPECT_EQ(show(frame), expected);
    sdl.calls.clear();
    EXPECT_TRUE(render.refresh());
    EXPECT_EQ(std::vector<std::string>(sdl.calls.begin() + 3, sdl.calls.end()), expected);
}

TEST_F(SDLRenderTest, FillsTheWholeOutputWithAnUprightPicture) {
    init();
    show(makePicture(0, 16, 16, {.y = 235, .u = 128, .v = 128}));
    for (const auto& [x, y] : {std::pair{0, 0}, {63, 0}, {0, 47}, {63, 47}, {32, 24}}) {
        expectColor(x, y, {255, 255, 255});
    }
}

TEST_F(SDLRenderTest, MakesTheTextureAnewWhenTheOutputChangesItsSize) {
    init();
    show(makePicture(0, 16, 8));
    sdl.outputSize = {100, 50};
    render.fillFrame(makePicture(40, 32, 16));
    sdl.calls.clear();
    EXPECT_TRUE(render.refresh());
    EXPECT_EQ(sdl.calls[1], "DestroyTexture");
    EXPECT_THAT(sdl.calls, Contains("CreateTexture SDL_PIXELFORMAT_IYUV 1 32x16"));
    EXPECT_THAT(show(makePicture(80, 32, 16)), Not(Contains("CreateTexture SDL_PIXELFORMAT_IYUV 1 32x16")));
    sdl.outputSize = {100, 51};
    render.refresh();
    EXPECT_THAT(sdl.calls, Contains("DestroyTexture"));
}

TEST_F(SDLRenderTest, GoesByTheLastOutputSizeIfThereIsNoNewOne) {
    init();
    show(makePicture(0));
    sdl.failing = {"GetRendererOutputSize"};
    EXPECT_THAT(show(makePicture(40)), Not(Contains("DestroyTexture")));
}

TEST_F(SDLRenderTest, TurnsAPictureWithinItsAspectRatio) {
    init();
    sdl.outputSize = {800, 600};
    EXPECT_EQ(destination(1920, 1080, 90), "100,131 600x337 angle 90 center null flip 0");
    EXPECT_EQ(destination(1920, 1080, 270), "100,131 600x337 angle 270 center null flip 0");
    // Higher than wide: lying down it fills the output's width. 480 * 800 = 384000 against 640 * 600.
    EXPECT_EQ(destination(480, 640, 90), "100,-100 600x800 angle 90 center null flip 0");
    EXPECT_EQ(destination(400, 640, 90), "150,-100 500x800 angle 90 center null flip 0");
    EXPECT_EQ(destination(401, 643, 90), "151,-100 498x800 angle 90 center null flip 0");
    EXPECT_EQ(destination(480, 500, 90), "100,-12 600x625 angle 90 center null flip 0");
    // Equal products take the second branch, with the same outcome.
    EXPECT_EQ(destination(600, 800, 90), "100,-100 600x800 angle 90 center null flip 0");
}

TEST_F(SDLRenderTest, StretchesAPictureThatIsUprightOrOnItsHead) {
    init();
    EXPECT_EQ(destination(16, 8, 0), "null angle 0 center null flip 0");
    EXPECT_EQ(destination(16, 8, 180), "null angle 180 center null flip 0");
    EXPECT_EQ(destination(16, 8, -180), "null angle -180 center null flip 0");
    // Any other angle is treated as a quarter turn.
    EXPECT_EQ(destination(16, 8, 45), "8,12 48x24 angle 45 center null flip 0");
}

TEST_F(SDLRenderTest, LeavesBarsBesideATurnedPicture) {
    init();
    const auto frame = makePicture(0, 16, 8, {.y = 235, .u = 128, .v = 128});
    frame->rotate = 90;
    show(frame);
    // 48 by 24 lying down: 24 wide and 48 high in the middle.
    expectColor(32, 2, {255, 255, 255});
    expectColor(32, 45, {255, 255, 255});
    expectColor(22, 24, {255, 255, 255});
    expectColor(41, 24, {255, 255, 255});
    expectColor(17, 24, {0, 0, 0});
    expectColor(46, 24, {0, 0, 0});
}

TEST_F(SDLRenderTest, TurnsClockwise) {
    init();
    const auto frame = makePicture(0, 16, 8, {.y = 16, .u = 128, .v = 128});
    for (int y = 0; y < 8; ++y) {
        std::fill_n(frame->data[0] + y * 16, 8, uint8_t{235});  // the left half is white
    }
    frame->rotate = 90;
    show(frame);
    expectColor(32, 8, {255, 255, 255});
    expectColor(32, 40, {0, 0, 0});
    frame->rotate = 270;
    show(frame);
    expectColor(32, 8, {0, 0, 0});
    expectColor(32, 40, {255, 255, 255});
}

struct Conversion {
    PixFormat pixFormat;
    int colorRange;
    int colorSpace;
    int mode;
};

TEST_F(SDLRenderTest, ChoosesTheConversionByRangeAndSpace) {
    init();
    show(makePicture(0));
    for (const auto& [pixFormat, range, space, mode] : {Conversion{PIX_FMT_YUV420P, 0, 0, 3},
                                                        {PIX_FMT_YUV420P, 1, 0, 3},
                                                        {PIX_FMT_YUV420P, 0, 1, 2},
                                                        {PIX_FMT_YUV420P, 1, 1, 2},
                                                        {PIX_FMT_YUV420P, 0, 2, 1},
                                                        {PIX_FMT_YUV420P, 2, 0, 0},
                                                        {PIX_FMT_YUV420P, 2, 1, 0},
                                                        {PIX_FMT_YUV420P, 2, 2, 0},
                                                        {PIX_FMT_YUV420P, 0, 3, 3},
                                                        {PIX_FMT_YUV420P10, 2, 1, 3}}) {
        const auto frame = makePicture(0);
        frame->pixFormat = pixFormat;
        frame->colorRange = range;
        frame->colorSpace = space;
        const auto calls = show(frame);
        EXPECT_EQ(calls.front(), "SetYUVConversionMode " + std::to_string(mode)) << range << " " << space;
        EXPECT_EQ(calls[calls.size() - 2], "SetYUVConversionMode 3");
        EXPECT_EQ(SDL_GetYUVConversionMode(), SDL_YUV_CONVERSION_AUTOMATIC);
    }
}

TEST_F(SDLRenderTest, ShowsTheColorsThatRangeAndSpaceStandFor) {
    init();
    // Red, in each of the three.
    auto frame = makePicture(0, 16, 8, {.y = 81, .u = 90, .v = 240});
    frame->colorSpace = 2;
    show(frame);
    expectColor(32, 24, {255, 0, 0});
    frame = makePicture(0, 16, 8, {.y = 63, .u = 102, .v = 240});
    frame->colorSpace = 1;
    show(frame);
    expectColor(32, 24, {255, 0, 0});
    frame = makePicture(0, 16, 8, {.y = 76, .u = 85, .v = 255});
    frame->colorRange = 2;
    show(frame);
    expectColor(32, 24, {255, 0, 0});
    // Taken for another one it is no longer red.
    frame = makePicture(0, 16, 8, {.y = 81, .u = 90, .v = 240});
    frame->colorSpace = 1;
    show(frame);
    EXPECT_GT(sdl.pixel(32, 24).g, 15);
}

TEST_F(SDLRenderTest, TriesATextureAgainThatCouldNotBeMade) {
    init();
    sdl.failing = {"CreateTexture"};
    EXPECT_THAT(show(makePicture(0), /*expected=*/false),
                ElementsAre("SetYUVConversionMode 3", "CreateTexture SDL_PIXELFORMAT_IYUV 1 16x8"));
    sdl.failing.clear();
    EXPECT_THAT(show(makePicture(0)), Contains("RenderPresent"));
}

TEST_F(SDLRenderTest, KeepsATextureThatCanNotBeSetUp) {
    init();
    sdl.failing = {"SetTextureBlendMode"};
    EXPECT_EQ(show(makePicture(0), /*expected=*/false).back(), "SetTextureBlendMode 0");
    EXPECT_THAT(show(makePicture(0)), Not(Contains("SetTextureBlendMode 0")));
}

TEST_F(SDLRenderTest, ShowsNothingIfThePlanesAreNotTaken) {
    init();
    sdl.failing = {"UpdateYUVTexture"};
    LogCapture log;
    const auto calls = show(makePicture(0), /*expected=*/false);
    EXPECT_EQ(calls.back(), "UpdateYUVTexture null pitch 16 8 8, u at 128, v at 160");
    EXPECT_THAT(log.lines(), ElementsAre("[SDLRender]: SDL_UpdateYUVTexture failed\n"));
}

TEST_F(SDLRenderTest, LeavesTheConversionOfTheProcessAloneWhateverFails) {
    init();
    const auto frame = makePicture(0);
    frame->colorRange = 2;
    for (const char* failing : {"CreateTexture", "SetTextureBlendMode", "UpdateYUVTexture"}) {
        sdl.failing = {failing};
        const auto calls = show(frame, /*expected=*/false);
        EXPECT_EQ(calls.front(), "SetYUVConversionMode 0") << failing;
        EXPECT_EQ(calls.back(), "SetYUVConversionMode 3") << failing;
        EXPECT_EQ(SDL_GetYUVConversionMode(), SDL_YUV_CONVERSION_AUTOMATIC) << failing;
    }
}

TEST_F(SDLRenderTest, PresentsEvenIfTheCopyFails) {
    init();
    sdl.failing = {"RenderCopyEx"};
    LogCapture log;
    EXPECT_EQ(show(makePicture(0)).back(), "RenderPresent");
    EXPECT_THAT(log.lines(), ElementsAre("[SDLRender]: SDL_RenderCopyEx faield\n"));
}

TEST_F(SDLRenderTest, KeepsTheTextureForAPictureOfAnotherSize) {
    init();
    show(makePicture(0, 32, 16, {.y = 235, .u = 128, .v = 128}));
    // A smaller one covers its part of the texture; SDL must not read the rest from its planes.
    EXPECT_THAT(show(makePicture(40, 16, 8, {.y = 16, .u = 128, .v = 128})),
                ElementsAre("SetYUVConversionMode 3", "UpdateYUVTexture 0,0 16x8 pitch 16 8 8, u at 128, v at 160",
                            "RenderCopyEx from null to null angle 0 center null flip 0", "SetYUVConversionMode 3",
                            "RenderPresent"));
    expectColor(2, 2, {0, 0, 0});
    expectColor(60, 2, {255, 255, 255});
    expectColor(2, 45, {255, 255, 255});
    // A larger one shows its upper left corner, one that is only wider as much as there is.
    EXPECT_THAT(show(makePicture(80, 64, 32)), Contains("UpdateYUVTexture null pitch 64 32 32, u at 2048, v at 2560"));
    EXPECT_THAT(show(makePicture(80, 64, 8)), Contains("UpdateYUVTexture 0,0 32x8 pitch 64 32 32, u at 512, v at 640"));
}

TEST_F(SDLRenderTest, KeepsTheRatioOfThePictureAndItsPixels) {
    init();
    render.setFit(PictureFit::Keep);
    sdl.outputSize = {800, 600};
    const auto shown = [this](int rotate, int pixelWidth) {
        const auto frame = makePicture(0, 32, 18);
        frame->rotate = rotate;
        frame->pixelWidth = pixelWidth;
        return show(frame);
    };
    EXPECT_THAT(shown(0, 1), Contains("RenderCopyEx from null to 0,75 800x450 angle 0 center null flip 0"));
    EXPECT_THAT(shown(180, 1), Contains("RenderCopyEx from null to 0,75 800x450 angle 180 center null flip 0"));
    // 338 by 600 on its side.
    EXPECT_THAT(shown(90, 1), Contains("RenderCopyEx from null to 100,131 600x338 angle 90 center null flip 0"));
    EXPECT_THAT(shown(270, 1), Contains("RenderCopyEx from null to 100,131 600x338 angle 270 center null flip 0"));
    EXPECT_THAT(shown(0, 2), Contains("RenderCopyEx from null to 0,187 800x225 angle 0 center null flip 0"));
}

TEST_F(SDLRenderTest, IsBlackBesideAPictureThatKeepsItsRatio) {
    init();
    render.setFit(PictureFit::Keep);
    show(makePicture(0, 16, 8, {.y = 235, .u = 128, .v = 128}));  // 64 by 32 of 64 by 48
    for (const auto& [y, light] : {std::pair{0, 0}, {7, 0}, {8, 255}, {39, 255}, {40, 0}, {47, 0}}) {
        expectColor(1, y, {light, light, light});
        expectColor(62, y, {light, light, light});
    }
    const auto frame = makePicture(40, 16, 8, {.y = 235, .u = 128, .v = 128});
    frame->rotate = 90;
    show(frame);  // 24 by 48
    for (const auto& [x, light] : {std::pair{1, 0}, {19, 0}, {20, 255}, {43, 255}, {44, 0}, {62, 0}}) {
        expectColor(x, 1, {light, light, light});
        expectColor(x, 46, {light, light, light});
    }
}

TEST_F(SDLRenderTest, MakesTheTextureAnewForAPictureOfAnotherSizeThatKeepsItsRatio) {
    init();
    render.setFit(PictureFit::Keep);
    show(makePicture(0, 32, 16, {.y = 235, .u = 128, .v = 128}));
    EXPECT_THAT(show(makePicture(40, 16, 8, {.y = 16, .u = 128, .v = 128})),
                IsSupersetOf({"DestroyTexture", "CreateTexture SDL_PIXELFORMAT_IYUV 1 16x8"}));
    expectColor(2, 24, {0, 0, 0});
    expectColor(60, 24, {0, 0, 0});
    EXPECT_THAT(show(makePicture(80, 16, 8)), Not(Contains("DestroyTexture")));
    EXPECT_THAT(show(makePicture(120, 16, 6)), Contains("CreateTexture SDL_PIXELFORMAT_IYUV 1 16x6"));
}

TEST_F(SDLRenderTest, WantsToBeDrawnAgainForAnotherFit) {
    init();
    const auto frame = makePicture(0, 16, 8);
    show(frame);
    EXPECT_GT(render.keepsForMs(frame), 0);
    render.setFit(PictureFit::Keep);
    EXPECT_EQ(render.keepsForMs(frame), 0);
    EXPECT_THAT(show(frame), Contains("RenderCopyEx from null to 0,8 64x32 angle 0 center null flip 0"));
    render.setFit(PictureFit::Fill);
    EXPECT_THAT(show(frame), Contains("RenderCopyEx from null to null angle 0 center null flip 0"));
}

TEST_F(SDLRenderTest, DrawsOddSizesWithinTheirBlock) {
    for (const auto& [width, height, area] : {std::tuple{5, 5, "null"},
                                              {5, 4, "null"},
                                              {4, 5, "null"},
                                              {4, 1, "null"},
                                              {2, 2, "null"},
                                              {3, 3, "null"},
                                              // SDL would read one chroma byte more than there are.
                                              {5, 1, "0,0 4x1"},
                                              {3, 1, "0,0 2x1"},
                                              {1919, 1, "0,0 1918x1"}}) {
        SDLRender odd;
        SDL_Window* other = SDL_CreateWindow("odd", 0, 0, 64, 48, 0);
        ASSERT_TRUE(odd.init(WINDOW_TYPE_SDL, other, 64, 48, 25));
        odd.fillFrame(makePicture(0, width, height));
        sdl.calls.clear();
        EXPECT_TRUE(odd.refresh()) << width << "x" << height;
        EXPECT_THAT(sdl.calls, Contains(testing::StartsWith(std::string("UpdateYUVTexture ") + area + " pitch")))
            << width << "x" << height;
        odd.close();
        SDL_DestroyWindow(other);
    }
}

TEST_F(SDLRenderTest, DrawsAPictureOnePixelWideWithoutColor) {
    init();
    const auto frame = makePicture(0, 1, 8, {.y = 235});  // chroma rows of no bytes
    frame->data[0][7] = 16;
    EXPECT_THAT(show(frame), Contains(testing::StartsWith("UpdateYUVTexture null pitch 1 1 1")));
    expectColor(2, 2, {255, 255, 255});
    expectColor(60, 40, {255, 255, 255});
    expectColor(32, 47, {0, 0, 0});
    // In the texture of a larger picture, which stays.
    render.close();
    init();
    show(makePicture(0, 16, 8, {.y = 16, .u = 128, .v = 128}));
    EXPECT_THAT(show(frame), Contains(testing::StartsWith("UpdateYUVTexture 0,0 1x8 pitch 1 1 1")));
}

TEST_F(SDLRenderTest, DrawsAPictureOfOnePixel) {
    init();
    EXPECT_THAT(show(makePicture(0, 1, 1, {.y = 235})), Contains("RenderPresent"));
    expectColor(32, 24, {255, 255, 255});
}

TEST_F(SDLRenderTest, DrawsNothingFromPlanesThatHaveNoBytes) {
    init();
    LogCapture log;
    const auto frame = makePicture(0, 16, 8);
    frame->buffer->size = 100;  // less than the planes need
    show(frame, /*expected=*/false);
    EXPECT_EQ(log.count("[SDLRender]: SDL_UpdateYUVTexture failed\n"), 1);
    const auto narrow = makePicture(0, 1, 8);
    narrow->buffer->size = 7;
    show(narrow, /*expected=*/false);
    frame->buffer->size = 16 * 8 * 3 / 2;
    frame->linesize[0] = -16;
    show(frame, /*expected=*/false);
    frame->linesize[0] = 0;
    show(frame, /*expected=*/false);
    frame->linesize[0] = 16;
    frame->width = -16;
    show(frame, /*expected=*/false);
    EXPECT_THAT(log.count("SDL_UpdateYUVTexture failed"), 5);
}

TEST_F(SDLRenderTest, DrawsFromPlanesOfOtherMemory) {
    init();
    const auto owner = makePicture(0, 16, 8);
    const auto frame = makePicture(0, 16, 8);
    std::copy_n(owner->data, 3, frame->data);
    EXPECT_THAT(show(frame), Contains("RenderPresent"));
    frame->buffer.reset();
    EXPECT_THAT(show(frame), Contains("RenderPresent"));
}

TEST_F(SDLRenderTest, DrawsNoPassThroughFrame) {
    init();
    LogCapture log;
    EXPECT_THAT(show(makePacketPicture(0), /*expected=*/false), ElementsAre("SetYUVConversionMode 3"));
    show(makePicture(40));  // now there is a texture
    const auto frame = makePacketPicture(80);
    EXPECT_THAT(show(frame, /*expected=*/false), ElementsAre("SetYUVConversionMode 3"));
    frame->width = 16;
    frame->height = 8;
    EXPECT_THAT(show(frame, /*expected=*/false), ElementsAre("SetYUVConversionMode 3"));
    EXPECT_THAT(log.lines(), IsEmpty());
    EXPECT_THAT(show(makePicture(120)), Contains("RenderPresent"));
}

TEST_F(SDLRenderTest, DrawsNoEmptyPicture) {
    init();
    const auto frame = makePicture(0, 16, 8);
    frame->width = 0;
    frame->height = 0;
    frame->rotate = 90;
    show(frame, /*expected=*/false);  // no texture of that size
    show(makePicture(40));
    show(frame, /*expected=*/false);
    EXPECT_THAT(show(makePicture(120)), Contains("RenderPresent"));
}

TEST_F(SDLRenderTest, PassesANewWindowSizeOn) {
    init();
    LogCapture log;
    EXPECT_TRUE(render.updateWindowSize(100, 50));
    EXPECT_THAT(sdl.calls, ElementsAre("SetWindowSize 100x50"));
    EXPECT_THAT(log.lines(), ElementsAre("[SDLRender]: updateWindowSize, 100x50\n"));
    int width = 0;
    int height = 0;
    SDL_GetWindowSize(window, &width, &height);
    EXPECT_EQ(width, 100);
    EXPECT_EQ(height, 50);
    show(makePicture(0, 16, 8, {.y = 235, .u = 128, .v = 128}));
    expectColor(99, 49, {255, 255, 255});
}

TEST_F(SDLRenderTest, LeavesTheWindowOfTheHostBlackAndAlive) {
    init();
    auto frame = makePicture(0, 16, 8, {.y = 235, .u = 128, .v = 128});
    const std::weak_ptr<VideoFrameInfo> weak = frame;
    show(frame);
    frame.reset();
    expectColor(32, 24, {255, 255, 255});
    sdl.calls.clear();
    LogCapture log;
    render.close();
    char line[64];
    std::snprintf(line, sizeof(line), "[SDLRender]: close, window_:%p\n", static_cast<void*>(window));
    EXPECT_THAT(log.lines(), ElementsAre(line));
    EXPECT_THAT(sdl.calls, ElementsAre("SetRenderDrawColor 0 0 0 255", "RenderClear", "RenderPresent", "DestroyTexture",
                                       "DestroyRenderer"));
    expectColor(32, 24, {0, 0, 0});
    EXPECT_TRUE(weak.expired());
    EXPECT_NE(SDL_GetWindowID(window), 0U);
    EXPECT_FALSE(render.refresh());
    // The host may give the window to another renderer.
    SDLRender next;
    EXPECT_TRUE(next.init(WINDOW_TYPE_SDL, window, 64, 48, 25));
    next.close();
}

TEST_F(SDLRenderTest, ClosesItselfIfNobodyElseDid) {
    {
        SDLRender forgotten;
        EXPECT_TRUE(forgotten.init(WINDOW_TYPE_SDL, window, 64, 48, 25));
        sdl.calls.clear();
    }
    EXPECT_EQ(sdl.calls.back(), "DestroyRenderer");
    sdl.windowFrom = window;
    sdl.failing = {"CreateRenderer"};
    {
        SDLRender forgotten;
        EXPECT_FALSE(forgotten.init(WINDOW_TYPE_QT_WINID, reinterpret_cast<void*>(0x77), 320, 240, 25));
        sdl.calls.clear();
    }
    EXPECT_THAT(sdl.calls, ElementsAre("DestroyWindow"));
    window = nullptr;
    SDL_SetHint(SDL_HINT_RENDER_SCALE_QUALITY, "nearest");
}

// A thread may have more than one window, and a host may call SDL on a thread of its own that draws here.
TEST_F(SDLRenderTest, FreesSdlsStorageOfTheThreadAtTheThreadsEndAlone) {
    std::thread([this] {
        for (int i = 0; i < 2; ++i) {
            init();
            SDL_SetError("the host's");
            render.close();
            EXPECT_STREQ(SDL_GetError(), "the host's");
        }
        EXPECT_THAT(sdl.calls, Not(Contains("TLSCleanup")));
        sdl.calls.clear();
    }).join();
    EXPECT_THAT(sdl.calls, ElementsAre("TLSCleanup"));
}

TEST_F(SDLRenderTest, TakesNoSecondRendererForAWindow) {
    init();
    SDLRender second;
    EXPECT_FALSE(second.init(WINDOW_TYPE_SDL, window, 64, 48, 25));
    EXPECT_FALSE(second.refresh());
    second.close();
    EXPECT_THAT(show(makePicture(0)), Contains("RenderPresent"));
}

}  // namespace
}  // namespace kelp
