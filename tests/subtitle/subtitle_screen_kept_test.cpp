// What a screen of subtitles keeps, forgets and wakes for.

#include <gmock/gmock.h>

#include "subtitle/subtitle_screen_fixture.h"

namespace kelp::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// The line from 1000 to 2000 was drawn at 1900.
TEST_F(SubtitleScreenTest, ShowsWhatWasDrawnForAPictureNearbyUntilItIsDrawn) {
    tracks->choose(kNumber);
    const auto view = screen.addView();
    screen.at(*view, 1900, kSize);
    work();
    for (const int64_t timeMs : {2000, 2100}) {
        const auto meanwhile = screen.at(*view, timeMs, kSize);
        EXPECT_TRUE(meanwhile.subtitles) << timeMs;
        EXPECT_FALSE(meanwhile.isFinal) << timeMs;
    }
    EXPECT_FALSE(screen.at(*view, 2101, kSize).subtitles);
    const SubtitleScreenSize larger{1280, 720, 640, 360};
    EXPECT_TRUE(screen.at(*view, 1700, larger).subtitles);
    EXPECT_FALSE(screen.at(*view, 999, larger).subtitles);
    EXPECT_TRUE(screen.at(*view, 1000, larger).subtitles) << "as long as it stands, however far away that is";
}

TEST_F(SubtitleScreenTest, KnowsNothingOfWhatWasShownBeforeItsEnd) {
    tracks->choose(kNumber);
    const auto view = screen.addView();
    screen.prepare(3500);
    screen.shown(1500);
    screen.at(*view, 1500, kSize);
    work();
    EXPECT_TRUE(screen.at(*view, 3500, kSize).isFinal);
    EXPECT_TRUE(screen.at(*view, 1500, kSize).isFinal);

    screen.end();
    WritingSink sink;
    screen.setSink(&sink);
    work();
    EXPECT_THAT(sink.take(), IsEmpty());
    EXPECT_FALSE(screen.at(*view, 1500, kSize).isFinal);
    EXPECT_FALSE(screen.at(*view, 3500, kSize).isFinal);
    screen.setSink(nullptr);
}

TEST_F(SubtitleScreenTest, KeepsItsLastThreeDrawings) {
    tracks->choose(kNumber);
    const auto view = screen.addView();
    const auto draw = [&](int64_t timeMs) {
        screen.at(*view, timeMs, kSize);
        work();
    };
    draw(1500);
    draw(2500);
    draw(3500);
    for (const int64_t timeMs : {1500, 2500, 3500}) {
        EXPECT_TRUE(screen.at(*view, timeMs, kSize).isFinal) << timeMs;
    }
    draw(4500);
    EXPECT_FALSE(screen.at(*view, 1500, kSize).isFinal);
    EXPECT_TRUE(screen.at(*view, 2500, kSize).isFinal);
}

TEST_F(SubtitleScreenTest, TellsTheSinkAgainOfTheSameLineAfterItsEnd) {
    tracks->choose(kNumber);
    WritingSink sink;
    screen.setSink(&sink);
    show(1500);
    SubtitleScreenPeer::tellEnd(screen);
    screen.end();
    isAsked();
    screen.shown(1500);
    EXPECT_TRUE(isAsked());
    work();
    EXPECT_THAT(sink.take(), ElementsAre("1500 one", "1500", "1500 one"));
    screen.setSink(nullptr);
}

TEST_F(SubtitleScreenTest, WakesForNoPictureWhileNoTrackIsShown) {
    tracks->choose(kNumber);
    tracks->choose(SubtitleTracks::kNone);
    WritingSink sink;
    screen.setSink(&sink);
    show(5000);
    isAsked();
    for (const int64_t timeMs : {-40, 0, 900'000}) {
        screen.shown(timeMs);
        EXPECT_FALSE(isAsked()) << timeMs;
    }
    screen.setSink(nullptr);
}

TEST_F(SubtitleScreenTest, WakesForANewSink) {
    WritingSink sink;
    EXPECT_FALSE(isAsked());
    screen.setSink(&sink);
    EXPECT_TRUE(isAsked());
    screen.setSink(nullptr);
}

}  // namespace
}  // namespace kelp::test
