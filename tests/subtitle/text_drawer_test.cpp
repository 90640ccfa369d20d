#include "subtitle/text_drawer.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <string_view>

#include "subtitle/drawn_pixels.h"
#include "subtitle/subtitle_files.h"
#include "subtitle/subtitle_line.h"
#include "support/log_capture.h"

static bool isLibassMissing = false;

extern "C" {

void* __real_dlopen(const char* name, int flags);

void* __wrap_dlopen(const char* name, int flags) {
    return isLibassMissing && std::string_view(name).starts_with("libass.") ? nullptr : __real_dlopen(name, flags);
}

}  // extern "C"

namespace kelp::test {
namespace {

constexpr SubtitleScreenSize kFilm{640, 360, 640, 360};

std::shared_ptr<SubtitleTrack> emptyTrack(bool isStyled = true) {
    return std::make_shared<SubtitleTrack>(
        SubtitleTrack::Head{.isText = true, .isStyled = isStyled, .script = kScript, .fonts = nullptr});
}

std::string dialogue(const std::string& text, int layer = 0) {
    return "Dialogue: " + std::to_string(layer) + ",0:00:01.00,0:00:05.00,Default,,0,0,0,," + text + "\n";
}

// By itself, without what was drawn before.
DrawnSubtitles drawnAlone(const std::shared_ptr<const SubtitleTrack>& track, int64_t timeMs,
                          const SubtitleScreenSize& screen = kFilm) {
    return TextDrawer(track).draw(timeMs, screen);
}

void expectSame(const DrawnSubtitles& drawn, const DrawnSubtitles& wanted) {
    ASSERT_TRUE(drawn && wanted);
    EXPECT_EQ(*drawn, *wanted);
}

TEST(TextDrawer, DrawsOfALineAtAnEdgeWhatLiesOnTheScreen) {
    for (const char* const place : {"{\\an5\\pos(0,180)}", "{\\an5\\pos(640,180)}", "{\\an5\\pos(320,0)}",
                                    "{\\an5\\pos(320,360)}", "{\\an5\\fs400\\pos(320,180)}"}) {
        const std::string script = kScript + dialogue(std::string(place) + "HHHHHHHH");
        const auto drawn = drawnAlone(readTrack(writeFile("edge.ass", script)), 2000);
        ASSERT_TRUE(drawn) << place;
        const auto& part = drawn->parts.at(0);
        EXPECT_GE(part.x, 0) << place;
        EXPECT_GE(part.y, 0) << place;
        EXPECT_LE(part.x + part.width, kFilm.width) << place;
        EXPECT_LE(part.y + part.height, kFilm.height) << place;
        Libass libass(script, kFilm.width, kFilm.height);
        EXPECT_LE(farthest(seen(drawn, kFilm.width, kFilm.height), libass.draw(2000)), 4) << place;
    }
    const std::string beyond = kScript + dialogue("{\\an5\\pos(2000,2000)}HHHHHHHH");
    EXPECT_FALSE(drawnAlone(readTrack(writeFile("beyond.ass", beyond)), 2000));
}

// Three rectangles, each a little lower and farther right, of which the lower two let the gray through or don't.
TEST(TextDrawer, LaysColoursOverEachOtherAsLibassDoes) {
    const auto box = [](const std::string& tags) {
        return "{\\an7\\bord0\\shad0\\p1" + tags + "}m 0 0 l 200 0 200 120 0 120";
    };
    for (const char* const lowest : {"00", "70"}) {
        const std::string script = kScript +
                                   dialogue(box("\\pos(100,60)\\1c&H3070B0&\\1a&H" + std::string(lowest) + "&"), 0) +
                                   dialogue(box("\\pos(160,100)\\1c&HB09060&\\1a&H60&"), 1) +
                                   dialogue(box("\\pos(220,140)\\1c&H50E020&\\1a&HA0&"), 2);
        Libass libass(script, kFilm.width, kFilm.height);
        const auto drawn = drawnAlone(readTrack(writeFile("layers.ass", script)), 2000);
        EXPECT_LE(farthest(seen(drawn, kFilm.width, kFilm.height), libass.draw(2000)), 4) << lowest;
    }
}

// A line that stands until the next one begins, of which nobody knows when it does; and one beside them.
TEST(TextDrawer, EndsALineWhoseEndIsReadLater) {
    const auto track = emptyTrack();
    track->add(line(1000, 5000, "{\\an8}beside"));
    track->add(line(1200, SubtitleEvent::kOpenEnd, "first"));
    TextDrawer drawer(track);
    expectSame(drawer.draw(1500, kFilm), drawnAlone(track, 1500));
    track->add(line(2000, SubtitleEvent::kOpenEnd, "second, and longer"));
    expectSame(drawer.draw(2500, kFilm), drawnAlone(track, 2500));
}

TEST(TextDrawer, LeavesALineInItsPlaceWhenMoreIsRead) {
    const auto track = emptyTrack();
    track->add(line(1000, 3000, "below"));
    track->add(line(2000, 6000, "above"));
    TextDrawer drawer(track);
    drawer.draw(1500, kFilm);
    drawer.draw(2500, kFilm);
    const auto before = drawer.draw(4000, kFilm);
    ASSERT_TRUE(before);
    ASSERT_NE(*before, *drawnAlone(track, 4000)) << "it would stand below if it came alone";
    track->add(line(9000, 9500, "later"));
    expectSame(drawer.draw(4500, kFilm), before);
}

// The color of two boxes that lie on each other, the red one of which begins first.
Pixel colorOfTwo(int redOrder, int blueOrder) {
    const std::string box = "\\an7\\bord0\\shad0\\p1\\pos(100,100)}m 0 0 l 50 0 50 50 0 50";
    auto red = line(1000, 5000, "{\\1c&H0000FF&" + box);
    auto blue = line(1100, 5000, "{\\1c&HFF0000&" + box);
    red.order = redOrder;
    blue.order = blueOrder;
    const auto track = emptyTrack();
    track->add(red);
    track->add(blue);
    return seen(drawnAlone(track, 2000), kFilm.width, kFilm.height)[120 * 640 + 120];
}

TEST(TextDrawer, LaysLinesByTheirNumbersOrElseAsTheyCome) {
    EXPECT_EQ(colorOfTwo(-1, -1).blue, 255);
    EXPECT_EQ(colorOfTwo(0, 1).blue, 255);
    EXPECT_EQ(colorOfTwo(1, 0).red, 255);
}

TEST(TextDrawer, DrawsPlainTextForSquarePixels) {
    constexpr SubtitleScreenSize kSquare{600, 600, 600, 600};
    const auto drawn = [&](bool isStyled) {
        const auto track = emptyTrack(isStyled);
        track->add(line(1000, 5000, "HHHHHHHH"));
        return drawnAlone(track, 2000, kSquare);
    };
    expectSame(drawn(/*isStyled=*/false), drawn(/*isStyled=*/true));
}

// In a process of its own, as what was loaded stays.
TEST(TextDrawerDeathTest, DrawsNothingWithoutLibassAndSaysSoOnce) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto isDrawn = [] {
        const auto track = emptyTrack();
        track->add(line(1000, 5000, "unseen"));
        return drawnAlone(track, 2000) != nullptr;
    };
    const auto draw = [&] {
        LogCapture log;
        isLibassMissing = true;
        const bool isAny = isDrawn() || isDrawn();
        const int lines = log.count("libass.so.9 isn't there: subtitles of text aren't drawn\n");
        std::_Exit(isAny ? 100 : lines);
    };
    EXPECT_EXIT(draw(), testing::ExitedWithCode(1), "");
    EXPECT_TRUE(isDrawn());
}

}  // namespace
}  // namespace kelp::test
