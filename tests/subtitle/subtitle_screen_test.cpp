#include "subtitle/subtitle_screen.h"

#include <gmock/gmock.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <thread>

#include "kelp_player/subtitle_sink.h"
#include "subtitle/subtitle_files.h"

namespace kelp {

class SubtitleScreenPeer {
public:
    static void work(SubtitleScreen& screen) { screen.work(); }
    static void tellEnd(SubtitleScreen& screen) { screen.tellEnd(); }
    // Whether the thread would have been woken since the last question.
    static bool isAsked(SubtitleScreen& screen) { return screen.asked_.exchange(0) != 0; }
};

namespace test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr int kNumber = 2;
constexpr SubtitleScreenSize kSize{640, 360, 640, 360};

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
// Writes down what it is told: the time, the texts, and how many pictures.
class WritingSink : public ExternSubtitleSink {
public:
    void onSubtitles(const ShownSubtitles& subtitles) override {
        std::lock_guard lock(mutex_);
        std::string text = std::to_string(subtitles.timeMs);
        for (const auto& line : subtitles.lines) {
            text += " " + line.text;
        }
        if (!subtitles.pictures.empty()) {
            text += " +" + std::to_string(subtitles.pictures.size());
        }
        calls_.push_back(text);
        last = subtitles;
        for (auto& picture : last.pictures) {
            picture.pixels = nullptr;
        }
        told_.notify_all();
        if (onCall) {
            onCall();
        }
    }
    SubtitlePictureSize pictureSize() override { return size; }

    std::vector<std::string> take() {
        std::lock_guard lock(mutex_);
        return std::exchange(calls_, {});
    }
    bool waitFor(const std::string& call) {
        std::unique_lock lock(mutex_);
        return told_.wait_for(lock, std::chrono::seconds(20), [&] { return std::ranges::count(calls_, call) > 0; });
    }

    SubtitlePictureSize size;
    ShownSubtitles last;
    std::function<void()> onCall;

private:
    std::mutex mutex_;
    std::condition_variable told_;
    std::vector<std::string> calls_;
};
#pragma GCC diagnostic pop

class SubtitleScreenTest : public testing::Test {
protected:
    SubtitleScreenTest() {
        const std::string script = std::string(kScript) +
                                   "Dialogue: 0,0:00:01.00,0:00:02.00,Default,,0,0,0,,one\n"
                                   "Dialogue: 0,0:00:03.00,0:00:04.00,Default,,0,0,0,,two\n"
                                   "Dialogue: 0,0:00:05.00,0:00:06.00,Default,,0,0,0,,{\\move(0,0,600,300)}moves\n";
        track = readTrack(writeFile("screen.ass", script));
        tracks->add(kNumber, track);
    }

    void work() { SubtitleScreenPeer::work(screen); }
    bool isAsked() { return SubtitleScreenPeer::isAsked(screen); }
    void show(int64_t timeMs) {
        screen.shown(timeMs);
        work();
    }

    std::shared_ptr<SubtitleTrack> track;
    std::shared_ptr<SubtitleTracks> tracks = std::make_shared<SubtitleTracks>();
    SubtitleScreen screen{tracks};
};

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
}  // namespace test
}  // namespace kelp
