#include "subtitle/subtitle_screen.h"

#include <gmock/gmock.h>

#include <chrono>
#include <thread>

#include "subtitle/subtitle_screen_fixture.h"

namespace kelp::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

TEST_F(SubtitleScreenTest, AsksForNothingWithoutAChosenTrack) {
    const auto view = screen.addView();
    screen.prepare(1500);
    screen.shown(1500);
    const auto answer = screen.at(*view, 1500, kSize);
    EXPECT_FALSE(answer.subtitles);
    EXPECT_TRUE(answer.isFinal);
    EXPECT_FALSE(isAsked());
    EXPECT_FALSE(screen.isOn());
}

TEST_F(SubtitleScreenTest, DrawsWhatGoesWithAPictureWhileThatWaits) {
    tracks->choose(kNumber);
    const auto view = screen.addView();
    EXPECT_FALSE(screen.at(*view, 900, kSize).isFinal);
    EXPECT_TRUE(isAsked());
    work();
    EXPECT_TRUE(screen.at(*view, 900, kSize).isFinal);
    EXPECT_FALSE(screen.at(*view, 900, kSize).subtitles);
    screen.prepare(1000);
    EXPECT_TRUE(isAsked());
    EXPECT_TRUE(screen.at(*view, 960, kSize).isFinal) << "nothing stands there until 1000";
    work();
    const auto answer = screen.at(*view, 1000, kSize);
    EXPECT_TRUE(answer.isFinal);
    EXPECT_TRUE(answer.subtitles);
    EXPECT_EQ(answer.size, kSize);
    // As long as it stands nothing is drawn.
    isAsked();
    screen.prepare(1999);
    EXPECT_EQ(screen.at(*view, 1999, kSize).subtitles, answer.subtitles);
    EXPECT_FALSE(isAsked());
}

TEST_F(SubtitleScreenTest, ShowsNothingOfBeforeASeek) {
    tracks->choose(kNumber);
    const auto view = screen.addView();
    screen.at(*view, 1500, kSize);
    work();
    EXPECT_TRUE(screen.at(*view, 1500, kSize).subtitles);
    const auto after = screen.at(*view, 60'000, kSize);
    EXPECT_FALSE(after.subtitles);
    EXPECT_FALSE(after.isFinal);
    work();
    EXPECT_FALSE(screen.at(*view, 60'000, kSize).subtitles);
}

TEST_F(SubtitleScreenTest, DrawsAnewInAnotherSizeAndShowsTheOldUntilThen) {
    tracks->choose(kNumber);
    const auto view = screen.addView();
    screen.at(*view, 1500, kSize);
    work();
    const auto before = screen.at(*view, 1500, kSize);
    const SubtitleScreenSize larger{1280, 720, 640, 360};
    const auto meanwhile = screen.at(*view, 1500, larger);
    EXPECT_FALSE(meanwhile.isFinal);
    EXPECT_EQ(meanwhile.subtitles, before.subtitles);
    EXPECT_EQ(meanwhile.size, kSize);
    work();
    const auto after = screen.at(*view, 1500, larger);
    ASSERT_TRUE(after.isFinal && after.subtitles);
    EXPECT_GT(after.subtitles->parts[0].pixelWidth, before.subtitles->parts[0].pixelWidth * 3 / 2);
    EXPECT_EQ(after.size, larger);
}

TEST_F(SubtitleScreenTest, ShowsALineThatIsReadLate) {
    tracks->choose(kNumber);
    const auto view = screen.addView();
    screen.at(*view, 2500, kSize);
    work();
    EXPECT_TRUE(screen.at(*view, 2500, kSize).isFinal);
    SubtitleEvent late = *track->all()[0];
    late.startMs = 2400;
    late.endMs = 2800;
    late.order = 9;
    track->add(late);
    EXPECT_FALSE(screen.at(*view, 2500, kSize).isFinal);
    work();
    EXPECT_TRUE(screen.at(*view, 2500, kSize).subtitles);
}

TEST_F(SubtitleScreenTest, ShowsAnotherTrackOrNoneAtOnce) {
    tracks->choose(kNumber);
    const auto view = screen.addView();
    screen.at(*view, 1500, kSize);
    work();
    tracks->choose(7);  // of which nothing was read yet
    EXPECT_FALSE(screen.at(*view, 1500, kSize).subtitles);
    tracks->choose(kNumber);
    EXPECT_TRUE(screen.at(*view, 1500, kSize).subtitles);
    tracks->choose(SubtitleTracks::kNone);
    EXPECT_FALSE(screen.at(*view, 1500, kSize).subtitles);
}

TEST_F(SubtitleScreenTest, TellsTheSinkOfEachChange) {
    tracks->choose(kNumber);
    WritingSink sink;
    screen.setSink(&sink);
    for (const int64_t timeMs : {0, 960, 1000, 1040, 1960, 2000, 3000, 3040, 1500, 5000, 5040}) {
        show(timeMs);
    }
    EXPECT_THAT(sink.take(), ElementsAre("1000 one", "2000", "3000 two", "1500 one", "5000 moves"));
    ASSERT_EQ(sink.last.lines.size(), 1U);
    EXPECT_EQ(sink.last.lines[0].startMs, 5000);
    EXPECT_EQ(sink.last.lines[0].endMs, 6000);
    EXPECT_EQ(sink.last.lines[0].styled,
              "Dialogue: 0,0:00:05.00,0:00:06.00,Default,,0,0,0,,{\\move(0,0,600,300)}moves");
    EXPECT_THAT(sink.last.script, HasSubstr("Style: Default,"));
    tracks->choose(SubtitleTracks::kNone);
    show(5080);
    EXPECT_THAT(sink.take(), ElementsAre("5080"));
    screen.setSink(nullptr);
}

TEST_F(SubtitleScreenTest, WakesForTheSinkOnlyWhereSomethingChanges) {
    tracks->choose(kNumber);
    WritingSink sink;
    screen.setSink(&sink);
    show(1000);
    isAsked();
    screen.shown(1500);
    EXPECT_FALSE(isAsked());
    screen.shown(2000);
    EXPECT_TRUE(isAsked());
    screen.setSink(nullptr);
    isAsked();
    screen.shown(3000);
    EXPECT_FALSE(isAsked());
}

TEST_F(SubtitleScreenTest, DrawsForTheSinkInTheSizeThatItWants) {
    tracks->choose(kNumber);
    WritingSink sink;
    sink.size = {320, 180};
    screen.setSink(&sink);
    show(1000);
    show(1040);
    show(5000);
    show(5040);
    EXPECT_THAT(sink.take(), ElementsAre("1000 one +1", "5000 moves +1", "5040 moves +1"));
    EXPECT_LE(sink.last.pictures[0].x + sink.last.pictures[0].width, 320);
    EXPECT_LE(sink.last.pictures[0].y + sink.last.pictures[0].height, 180);
    screen.setSink(nullptr);
}

TEST_F(SubtitleScreenTest, TellsTheSinkAndTakesAnotherTrackWhileThereIsAlwaysMoreToDraw) {
    tracks->choose(kNumber);
    WritingSink sink;
    sink.size = {320, 180};
    screen.setSink(&sink);
    const auto view = screen.addView();
    // Each picture of the line that moves is drawn, and the next one is there by then.
    int64_t timeMs = 5000;
    const auto next = [&] {
        screen.shown(timeMs);
        screen.at(*view, timeMs, kSize);
    };
    sink.onCall = [&] {
        timeMs += 40;
        if (timeMs == 5120) {
            tracks->choose(SubtitleTracks::kNone);
        }
        next();
    };
    next();
    work();
    EXPECT_THAT(sink.take(), ElementsAre("5000 moves +1", "5040 moves +1", "5080 moves +1", "5120"));
    screen.setSink(nullptr);
}

TEST_F(SubtitleScreenTest, TellsANewSinkWhatStandsAndAnOldOneTheEnd) {
    tracks->choose(kNumber);
    WritingSink first;
    WritingSink second;
    screen.setSink(&first);
    show(1500);
    screen.setSink(&second);
    work();
    EXPECT_THAT(first.take(), ElementsAre("1500 one"));
    EXPECT_THAT(second.take(), ElementsAre("1500 one"));
    screen.shown(1540);
    SubtitleScreenPeer::tellEnd(screen);
    EXPECT_THAT(second.take(), ElementsAre("1540"));
    SubtitleScreenPeer::tellEnd(screen);
    EXPECT_THAT(second.take(), IsEmpty());
    screen.setSink(nullptr);
}

TEST_F(SubtitleScreenTest, RunsOnAThreadOfItsOwnUntilItsEnd) {
    tracks->choose(kNumber);
    WritingSink sink;
    screen.setSink(&sink);
    screen.begin();
    screen.begin();
    screen.shown(1500);
    EXPECT_TRUE(sink.waitFor("1500 one"));
    screen.shown(3500);
    EXPECT_TRUE(sink.waitFor("3500 two"));
    const auto view = screen.addView();
    bool isDrawn = false;
    for (int i = 0; i < 2000 && !isDrawn; ++i) {
        isDrawn = screen.at(*view, 3500, kSize).subtitles != nullptr;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_TRUE(isDrawn);
    screen.end();
    EXPECT_EQ(sink.take().back(), "3500");
    // And once more.
    screen.begin();
    screen.shown(1500);
    EXPECT_TRUE(sink.waitFor("1500 one"));
    screen.setSink(nullptr);
    screen.end();
}

}  // namespace
}  // namespace kelp::test
