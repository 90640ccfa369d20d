// What windows show on a screen: colour bars at known places, turned, in several windows, paused, removed, resized.

#include <SDL.h>
#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "e2e/clocked_player.h"
#include "e2e/managed_playback.h"
#include "e2e/media.h"
#include "e2e/playback.h"
#include "e2e/rtsp_server.h"
#include "support/temp_files.h"
#include "support/x_screen.h"

namespace kelp::test {
namespace {

constexpr Rgb kBlack = {0, 0, 0};
// The bars of the picture's upper two thirds, from left to right, at 75% of full colour.
constexpr std::array<Rgb, 7> kBars = {Rgb{191, 191, 191}, Rgb{191, 191, 0}, Rgb{0, 191, 191}, Rgb{0, 191, 0},
                                      Rgb{191, 0, 191},   Rgb{191, 0, 0},   Rgb{0, 0, 191}};

void* handleOf(unsigned long window) {
    return reinterpret_cast<void*>(window);
}

// All tests share one screen: SDL keeps the connection that it opened first.
class Windows : public testing::Test {
protected:
    static void SetUpTestSuite() { sharedScreen() = std::make_unique<XScreen>(1300, 900); }
    static void TearDownTestSuite() { sharedScreen().reset(); }

    Windows() : screen_(*sharedScreen()) {}
    ~Windows() override {
        playback_.reset();
        screen_.destroyWindows();
    }

    void play(const char* name) {
        playback_ = std::make_unique<Playback>();
        playback_->player().setAVSyncMode(SYNC_MASTER_VIDEO);
        ASSERT_TRUE(playback_->open(mediaPath(name)));
    }

    KelpPlayer& player() { return playback_->player(); }

    // Whether a window at (x, y) of this size is filled by the bars.
    void expectBars(int x, int y, int width, int height) {
        for (size_t bar = 0; bar < kBars.size(); ++bar) {
            const int column = x + static_cast<int>(width * (2 * bar + 1) / 14);
            EXPECT_TRUE(screen_.waitForPixel(column, y + height / 4, kBars.at(bar))) << "bar " << bar;
        }
        // To the edges.
        EXPECT_TRUE(screen_.waitForPixel(x + 1, y + 1, kBars.front()));
        EXPECT_TRUE(screen_.waitForPixel(x + width - 2, y + 1, kBars.back()));
    }

    // Whether it is black there, and stays so for longer than any redraw takes.
    void expectBlack(int x, int y, int width, int height) {
        for (const int column : {x + 1, x + width / 2, x + width - 2}) {
            EXPECT_TRUE(screen_.waitForPixel(column, y + height / 4, kBlack));
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        EXPECT_TRUE(screen_.waitForPixel(x + width / 14, y + height / 4, kBlack, 8, 0));
    }

    XScreen& screen_;
    std::unique_ptr<Playback> playback_;

private:
    static std::unique_ptr<XScreen>& sharedScreen() {
        static std::unique_ptr<XScreen> screen;
        return screen;
    }
};

TEST_F(Windows, OfAnotherClientAreFilledByThePicture) {
    const auto window = screen_.createWindow(20, 30, 700, 300);
    play("bars.mp4");
    player().addWindow(WINDOW_TYPE_QT_WINID, handleOf(window), 700, 300);
    ASSERT_TRUE(player().play());
    expectBars(20, 30, 700, 300);
}

TEST_F(Windows, OfTheHostsOwnSdlAreFilledByThePictureAndStay) {
    play("bars.mp4");
    SDL_Window* window = SDL_CreateWindow("bars", 40, 50, 640, 360, SDL_WINDOW_OPENGL | SDL_WINDOW_BORDERLESS);
    if (window == nullptr) {
        window = SDL_CreateWindow("bars", 40, 50, 640, 360, SDL_WINDOW_BORDERLESS);
    }
    ASSERT_NE(window, nullptr);
    player().addWindow(WINDOW_TYPE_SDL, window, 640, 360);
    ASSERT_TRUE(player().play());
    expectBars(40, 50, 640, 360);
    player().stop();
    // Left black, and still the host's.
    EXPECT_TRUE(screen_.waitForPixel(40 + 320, 50 + 90, kBlack));
    int width = 0;
    SDL_GetWindowSize(window, &width, nullptr);
    EXPECT_EQ(width, 640);
    SDL_DestroyWindow(window);
}

TEST_F(Windows, ShowPicturesInTheDecodersMemoryAndTurnBlackWithoutWritingThere) {
    const auto window = screen_.createWindow(20, 30, 700, 300);
    play("bars.mp4");
    player().setOption("pictures", "shared");
    player().addWindow(WINDOW_TYPE_QT_WINID, handleOf(window), 700, 300);
    ASSERT_TRUE(player().play());
    expectBars(20, 30, 700, 300);
    player().pause();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    player().clearScreen();
    expectBlack(20, 30, 700, 300);
    player().resume();
    expectBars(20, 30, 700, 300);
    player().seek(500);
    expectBars(20, 30, 700, 300);
}

TEST_F(Windows, ShowPicturesOfEveryRangeAndMatrixInTheirColorsWithAllCodecs) {
    const TempFolder folder;
    const auto window = screen_.createWindow(20, 30, 700, 300);
    for (const auto& [file, encoding] : std::vector<std::pair<std::string, std::string>>{
             {"full_bt709.mp4",
              "-vf scale=in_color_matrix=bt601:out_color_matrix=bt709:out_range=pc,format=yuvj420p -c:v libx264 -qp 4 "
              "-color_range pc -colorspace bt709"},
             {"full.avi",
              "-vf scale=in_color_matrix=bt601:out_color_matrix=bt601:out_range=pc,format=yuvj420p -c:v "
              "mjpeg -q:v 2"},
             {"rgb.mkv", "-vf scale=in_color_matrix=bt601,format=gbrp -c:v ffv1"},
             {"transparent.mov", "-vf scale=in_color_matrix=bt601,format=rgba -c:v qtrle"}}) {
        SCOPED_TRACE(file);
        const std::string path = folder.path(file);
        runFFmpeg("-f lavfi -i smptebars=size=640x360:rate=25:duration=4 " + encoding + " " + path);
        playback_ = std::make_unique<Playback>();
        player().setOption("codecs", "all");
        player().setAVSyncMode(SYNC_MASTER_VIDEO);
        ASSERT_TRUE(playback_->open(path));
        player().addWindow(WINDOW_TYPE_QT_WINID, handleOf(window), 700, 300);
        ASSERT_TRUE(player().play());
        expectBars(20, 30, 700, 300);
        playback_.reset();
    }
}

TEST_F(Windows, ShowATurnedPictureCentredInItsShape) {
    const auto window = screen_.createWindow(0, 0, 600, 600);
    play("bars_rotated.mp4");
    player().addWindow(WINDOW_TYPE_QT_WINID, handleOf(window), 600, 600);
    ASSERT_TRUE(player().play());
    // Turned clockwise the picture is 337 wide and 600 high, its left bar is on top and its upper part on the right.
    const int left = (600 - 337) / 2;
    for (size_t bar = 0; bar < kBars.size(); ++bar) {
        const int row = static_cast<int>(600 * (2 * bar + 1) / 14);
        EXPECT_TRUE(screen_.waitForPixel(left + 337 * 3 / 4, row, kBars.at(bar))) << "bar " << bar;
    }
    EXPECT_TRUE(screen_.waitForPixel(left + 337 - 4, 4, kBars.front()));
    EXPECT_TRUE(screen_.waitForPixel(left + 337 - 4, 595, kBars.back()));
    EXPECT_TRUE(screen_.waitForPixel(left - 4, 300, kBlack));
    EXPECT_TRUE(screen_.waitForPixel(left + 337 + 4, 300, kBlack));
    EXPECT_TRUE(screen_.waitForPixel(2, 2, kBlack));
    EXPECT_TRUE(screen_.waitForPixel(597, 597, kBlack));
}

TEST_F(Windows, KeepTheRatioOfThePictureAndOfItsPixelsIfThatIsWanted) {
    const auto window = screen_.createWindow(0, 0, 600, 300);
    play("bars_narrow.mp4");
    player().setOption("fit", "keep");
    player().addWindow(WINDOW_TYPE_QT_WINID, handleOf(window), 600, 300);
    ASSERT_TRUE(player().play());
    // 320 by 360 as it is seen.
    expectBars(167, 0, 267, 300);
    EXPECT_TRUE(screen_.waitForPixel(165, 75, kBlack));
    EXPECT_TRUE(screen_.waitForPixel(435, 75, kBlack));
    // Another size, and another wish, while it stands.
    player().pause();
    player().updateWindowSize(handleOf(window), 320, 600);
    expectBars(0, 120, 320, 360);
    EXPECT_TRUE(screen_.waitForPixel(160, 118, kBlack));
    EXPECT_TRUE(screen_.waitForPixel(160, 482, kBlack));
    player().setOption("fit", "fill");
    expectBars(0, 0, 320, 600);
    player().setOption("preset", "recommended");
    expectBars(0, 120, 320, 360);
}

TEST_F(Windows, OfThreeShapesKeepFourRatios) {
    struct Film {
        const char* name;
        double ratio;
        bool isTurned = false;
    };
    constexpr std::array kFilms = {Film{"bars_wide.mp4", 2.35}, Film{"bars.mp4", 16.0 / 9},
                                   Film{"bars_narrow.mp4", 8.0 / 9}, Film{"bars_rotated.mp4", 9.0 / 16, true}};
    struct Shape {
        int y, width, height;
    };
    constexpr std::array kShapes = {Shape{10, 300, 130}, Shape{150, 200, 200}, Shape{360, 110, 220}};
    constexpr int kColumn = 310;
    constexpr int kMargin = 4;  // of an edge, whose pixels may be mixed
    screen_.createWindow(0, 0, 4 * kColumn + 10, 590);
    std::vector<std::unique_ptr<Playback>> playbacks;
    for (size_t i = 0; i < kFilms.size(); ++i) {
        playbacks.push_back(std::make_unique<Playback>());
        KelpPlayer& player = playbacks.back()->player();
        player.setOption("preset", "recommended");
        for (const Shape& shape : kShapes) {
            const auto window =
                screen_.createWindow(10 + static_cast<int>(i) * kColumn, shape.y, shape.width, shape.height);
            player.addWindow(WINDOW_TYPE_QT_WINID, handleOf(window), shape.width, shape.height);
        }
        ASSERT_TRUE(playbacks.back()->open(mediaPath(kFilms.at(i).name)));
        ASSERT_TRUE(player.play());
    }
    for (size_t i = 0; i < kFilms.size(); ++i) {
        const Film& film = kFilms.at(i);
        for (const Shape& shape : kShapes) {
            SCOPED_TRACE(std::string(film.name) + " in " + std::to_string(shape.width) + "x" +
                         std::to_string(shape.height));
            const int width = std::min(shape.width, static_cast<int>(shape.height * film.ratio));
            const int height = std::min(shape.height, static_cast<int>(shape.width / film.ratio));
            const int left = 10 + static_cast<int>(i) * kColumn + (shape.width - width) / 2;
            const int top = shape.y + (shape.height - height) / 2;
            const int right = left + width - 1;
            const int bottom = top + height - 1;
            // The first bar is on the left, or on top; where they begin is above, or on the right.
            EXPECT_TRUE(
                screen_.waitForPixel(right - kMargin, top + kMargin, film.isTurned ? kBars.front() : kBars.back()));
            EXPECT_TRUE(film.isTurned ? screen_.waitForPixel(right - kMargin, bottom - kMargin, kBars.back())
                                      : screen_.waitForPixel(left + kMargin, top + kMargin, kBars.front()));
            if (shape.width > width + 2 * kMargin) {
                EXPECT_TRUE(screen_.waitForPixel(left - kMargin, top + height / 2, kBlack));
                EXPECT_TRUE(screen_.waitForPixel(right + kMargin, top + height / 2, kBlack));
            }
            if (shape.height > height + 2 * kMargin) {
                EXPECT_TRUE(screen_.waitForPixel(left + width / 2, top - kMargin, kBlack));
                EXPECT_TRUE(screen_.waitForPixel(left + width / 2, bottom + kMargin, kBlack));
            }
        }
    }
    // Not a part of the test: the picture of the documents.
    if (const char* path = std::getenv("KELP_SCREENSHOT")) {
        const auto bytes = screen_.grab(0, 0, 4 * kColumn + 10, 590);
        std::ofstream(path, std::ios::binary) << "P6 " << 4 * kColumn + 10 << " 590 255\n"
                                              << std::string(bytes.begin(), bytes.end());
    }
}

TEST_F(Windows, AreNotNeededForASnapshot) {
    const TempFolder folder;
    const std::string path = folder.path("bars.png");
    play("bars_narrow.mp4");
    EXPECT_FALSE(player().takeSnapshot(path.c_str()));
    ASSERT_TRUE(player().play());
    for (int i = 0; i < 2000 && !player().takeSnapshot(path.c_str()); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    // As high as it is seen.
    runFFmpeg("-i " + path + " -f rawvideo -pix_fmt rgb24 " + folder.path("raw"));
    std::ifstream file(folder.path("raw"), std::ios::binary);
    const std::string pixels((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    ASSERT_EQ(pixels.size(), size_t{640} * 720 * 3);
    for (size_t bar = 0; bar < kBars.size(); ++bar) {
        const auto* const pixel =
            reinterpret_cast<const uint8_t*>(&pixels[(size_t{100} * 640 + 640 * (2 * bar + 1) / 14) * 3]);
        EXPECT_NEAR(pixel[0], kBars.at(bar)[0], 4) << "bar " << bar;
        EXPECT_NEAR(pixel[1], kBars.at(bar)[1], 4) << "bar " << bar;
        EXPECT_NEAR(pixel[2], kBars.at(bar)[2], 4) << "bar " << bar;
    }
    player().stop();
    EXPECT_FALSE(player().takeSnapshot(path.c_str()));
}

TEST_F(Windows, ShowThePictureTogetherAndPauseByThemselves) {
    const auto first = screen_.createWindow(0, 0, 320, 180);
    const auto second = screen_.createWindow(400, 0, 320, 180);
    play("everyday.mp4");
    player().addWindow(WINDOW_TYPE_QT_WINID, handleOf(first), 320, 180);
    player().addWindow(WINDOW_TYPE_QT_WINID, handleOf(second), 320, 180);
    ASSERT_TRUE(player().play());
    const auto shown = [&](int x) { return screen_.grab(x, 0, 320, 180); };
    const auto waitForChange = [&](int x, const std::vector<uint8_t>& from) {
        for (int i = 0; i < 1500; ++i) {
            if (shown(x) != from) {
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    };
    // Past the grey of the bare window and the black that comes before the first picture.
    const auto waitForPicture = [&](int x) {
        for (int i = 0; i < 1500; ++i) {
            const auto bytes = shown(x);
            if (std::any_of(bytes.begin(), bytes.end(), [&](uint8_t byte) { return byte != bytes.front(); })) {
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    };
    ASSERT_TRUE(waitForPicture(0));
    ASSERT_TRUE(waitForPicture(400));
    player().pauseWindow(handleOf(second), true);
    // One thread draws both windows in turn: a picture that was being drawn there is on the screen once the first
    // window has shown two more.
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(waitForChange(0, shown(0)));
    }
    const auto held = shown(400);
    for (int i = 0; i < 5; ++i) {
        ASSERT_TRUE(waitForChange(0, shown(0)));
    }
    EXPECT_EQ(shown(400), held);
    player().pauseWindow(handleOf(second), false);
    EXPECT_TRUE(waitForChange(400, held));
    // At the end both show the last picture.
    ASSERT_TRUE(playback_->waitFor(Happened::Completed, 60000));
    bool alike = false;
    for (int i = 0; i < 1500 && !alike; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        alike = shown(0) == shown(400);
    }
    EXPECT_TRUE(alike);
}

TEST_F(Windows, CanBeRemovedAndAddedAgain) {
    const auto first = screen_.createWindow(0, 0, 320, 180);
    const auto second = screen_.createWindow(400, 0, 320, 180);
    play("bars.mp4");
    player().addWindow(WINDOW_TYPE_QT_WINID, handleOf(first), 320, 180);
    player().addWindow(WINDOW_TYPE_QT_WINID, handleOf(second), 320, 180);
    ASSERT_TRUE(player().play());
    expectBars(0, 0, 320, 180);
    expectBars(400, 0, 320, 180);
    player().removeWindow(handleOf(second));
    EXPECT_TRUE(screen_.waitForPixel(400 + 160, 45, kBlack));
    expectBars(0, 0, 320, 180);
    player().addWindow(WINDOW_TYPE_QT_WINID, handleOf(second), 320, 180);
    expectBars(400, 0, 320, 180);
}

TEST_F(Windows, TurnBlackByClearScreenUntilTheNextPicture) {
    const auto first = screen_.createWindow(0, 0, 320, 180);
    const auto second = screen_.createWindow(400, 0, 320, 180);
    play("bars.mp4");
    player().addWindow(WINDOW_TYPE_QT_WINID, handleOf(first), 320, 180);
    player().addWindow(WINDOW_TYPE_QT_WINID, handleOf(second), 320, 180);
    CountingSink sink;
    player().addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&sink), 0, 0);
    ASSERT_TRUE(player().play());
    expectBars(0, 0, 320, 180);
    expectBars(400, 0, 320, 180);
    player().pause();
    // A picture that is being drawn would take the place of the one that is cleared.
    ASSERT_TRUE(sink.waitFor(sink.count() + 3, 15000));
    player().clearScreen();
    expectBlack(0, 0, 320, 180);
    expectBlack(400, 0, 320, 180);
    player().resume();
    expectBars(0, 0, 320, 180);
    expectBars(400, 0, 320, 180);
    player().stop();
}

// A managed player clears by itself while the host's clock has not come to the stream's start.
TEST_F(Windows, OfAManagedPlayerAreBlackUntilTheClockComesToTheStart) {
    const auto window = screen_.createWindow(0, 0, 320, 180);
    const std::unique_ptr<TarnSyncClock, ClockEnd> clock(TarnSyncClock::create(0, 10000));
    clock->pause();
    ManagedPlayback managed;
    managed.player().addWindow(handleOf(window), WINDOW_TYPE_QT_WINID, 320, 180);
    managed.player().setSyncClock(clock.get());
    ASSERT_TRUE(managed.open(mediaPath("bars.mp4")));
    ASSERT_TRUE(managed.player().start());
    expectBars(0, 0, 320, 180);
    for (const int offsetMs : {5000, 30000}) {  // within the distance at which clocks mean something, and beyond
        managed.player().pause();
        ASSERT_TRUE(managed.sink().waitFor(managed.sink().count() + 3, 15000));
        ASSERT_TRUE(managed.player().setOffsetToClockMs(offsetMs));
        managed.player().resume();
        expectBlack(0, 0, 320, 180);
        ASSERT_TRUE(managed.player().setOffsetToClockMs(0));
        expectBars(0, 0, 320, 180);
    }
    managed.destroy();
}

TEST_F(Windows, FollowANewSize) {
    const auto window = screen_.createWindow(0, 0, 320, 180);
    play("bars.mp4");
    player().addWindow(WINDOW_TYPE_QT_WINID, handleOf(window), 320, 180);
    ASSERT_TRUE(player().play());
    expectBars(0, 0, 320, 180);
    screen_.resizeWindow(window, 640, 500);
    player().updateWindowSize(handleOf(window), 640, 500);
    expectBars(0, 0, 640, 500);
    EXPECT_FALSE(screen_.waitForPixel(320, 490, Rgb{128, 128, 128}, 2, 0));
    // Also while paused.
    player().pause();
    screen_.resizeWindow(window, 500, 640);
    player().updateWindowSize(handleOf(window), 500, 640);
    expectBars(0, 0, 500, 640);
}

// The system leaves grey where a window was covered, and tells its owner alone.
TEST_F(Windows, ShowAStandingPictureAgainAfterTheyWereCovered) {
    const auto window = screen_.createWindow(0, 0, 320, 180);
    play("bars.mp4");
    player().addWindow(WINDOW_TYPE_QT_WINID, handleOf(window), 320, 180);
    ASSERT_TRUE(player().play());
    expectBars(0, 0, 320, 180);
    player().pause();
    const auto cover = screen_.createWindow(100, 20, 100, 50);
    EXPECT_TRUE(screen_.waitForPixel(160, 45, Rgb{128, 128, 128}));
    screen_.resizeWindow(cover, 1, 1);
    expectBars(0, 0, 320, 180);
}

// The camera is killed, isn't there for some attempts, and comes back; a window of each kind is looked at all the time.
TEST_F(Windows, KeepTheirPictureWhileALiveSourceIsAway) {
    RtspServer server({{"bars", mediaPath("bars.mp4")}});
    ManagedPlayback playback;
    TarnPlayer& player = playback.player();
    player.setOption("closed_live_source", "failed");
    player.setOption("retry_when_failed", "100");
    player.setAVSyncMode(SYNC_MASTER_VIDEO);
    const auto foreign = screen_.createWindow(20, 30, 700, 300);
    SDL_Window* own = SDL_CreateWindow("bars", 40, 400, 640, 360, SDL_WINDOW_OPENGL | SDL_WINDOW_BORDERLESS);
    if (own == nullptr) {
        own = SDL_CreateWindow("bars", 40, 400, 640, 360, SDL_WINDOW_BORDERLESS);
    }
    player.addWindow(handleOf(foreign), WINDOW_TYPE_QT_WINID, 700, 300);
    player.addWindow(own, WINDOW_TYPE_SDL, 640, 360);
    ASSERT_TRUE(playback.open(server.url("bars")));
    ASSERT_TRUE(player.start());
    expectBars(20, 30, 700, 300);
    expectBars(40, 400, 640, 360);

    std::atomic<bool> ended{false};
    int looks = 0;
    int other = 0;
    std::thread watching([&] {
        for (; !ended; ++looks) {
            const bool stands = screen_.waitForPixel(20 + 50, 30 + 75, kBars[0], 12, 0) &&
                                screen_.waitForPixel(40 + 640 / 2, 400 + 90, kBars[3], 12, 0);
            other += stands ? 0 : 1;
            std::this_thread::sleep_for(std::chrono::milliseconds(4));
        }
    });
    const int pictures = playback.count("picture");
    server.kill();
    std::this_thread::sleep_for(std::chrono::milliseconds(700));
    server.start();
    EXPECT_TRUE(playback.waitFor("picture", pictures + 1));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    ended = true;
    watching.join();
    EXPECT_GT(looks, 50);
    EXPECT_EQ(other, 0) << "of " << looks;
    EXPECT_EQ(playback.count("completed") + playback.count("failed"), 0);

    player.stop();
    expectBlack(20, 30, 700, 300);
    playback.destroy();
    SDL_DestroyWindow(own);
}

}  // namespace
}  // namespace kelp::test
