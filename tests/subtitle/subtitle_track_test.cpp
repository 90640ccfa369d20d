#include "subtitle/subtitle_track.h"

#include <gmock/gmock.h>

#include "subtitle/subtitle_line.h"

namespace kelp::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr int64_t kOpen = SubtitleEvent::kOpenEnd;
constexpr int64_t kFirst = std::numeric_limits<int64_t>::min();
constexpr int64_t kLast = std::numeric_limits<int64_t>::max();

SubtitleEvent picture(int64_t startMs, int64_t endMs, int width = 2) {
    SubtitleEvent event;
    event.startMs = startMs;
    event.endMs = endMs;
    event.bitmaps.push_back({0, 0, width, 1, std::vector<uint8_t>(static_cast<size_t>(width)), {}});
    return event;
}

SubtitleTrack::Head pictures() {
    return {.isText = false, .isStyled = false, .script = "", .fonts = nullptr};
}

std::vector<std::string> textsAt(const SubtitleTrack& track, int64_t timeMs) {
    std::vector<std::string> texts;
    for (const auto& event : track.at(timeMs).events) {
        texts.push_back(event->plainText());
    }
    return texts;
}

TEST(SubtitleTrack, TellsWhatStandsAndUntilWhen) {
    SubtitleTrack track({});
    track.add(line(5000, 6000, "c"));
    track.add(line(1000, 3000, "a"));
    track.add(line(2000, 4000, "b"));
    EXPECT_THAT(textsAt(track, 999), IsEmpty());
    EXPECT_THAT(textsAt(track, 1000), ElementsAre("a"));
    EXPECT_THAT(textsAt(track, 2500), ElementsAre("a", "b"));
    EXPECT_THAT(textsAt(track, 3000), ElementsAre("b"));
    EXPECT_THAT(textsAt(track, 4000), IsEmpty());
    const auto span = [&](int64_t timeMs) {
        const auto moment = track.at(timeMs);
        return std::pair(moment.fromMs, moment.toMs);
    };
    EXPECT_EQ(span(0), std::pair(kFirst, int64_t{1000}));
    EXPECT_EQ(span(1500), std::pair(int64_t{1000}, int64_t{2000}));
    EXPECT_EQ(span(2500), std::pair(int64_t{2000}, int64_t{3000}));
    EXPECT_EQ(span(3500), std::pair(int64_t{3000}, int64_t{4000}));
    EXPECT_EQ(span(4500), std::pair(int64_t{4000}, int64_t{5000}));
    EXPECT_EQ(span(9000), std::pair(int64_t{6000}, kLast));
}

TEST(SubtitleTrack, KnowsALineThatComesAgain) {
    SubtitleTrack track({});
    track.add(line(1000, 3000, "a"));
    track.add(line(1000, 3000, "b"));
    const auto version = track.version();
    track.add(line(1000, 3000, "a"));
    track.add(line(1000, 3000, "b"));
    EXPECT_EQ(track.version(), version);
    EXPECT_THAT(textsAt(track, 1000), ElementsAre("a", "b"));
    track.add(line(1000, 3500, "a"));
    EXPECT_NE(track.version(), version);
    EXPECT_EQ(track.all().size(), 3U);
}

TEST(SubtitleTrack, EndsALineWithoutAnEndByTheNext) {
    SubtitleTrack track({});
    track.add(line(1000, kOpen, "a"));
    EXPECT_THAT(textsAt(track, 60'000), ElementsAre("a"));
    track.add(line(3000, kOpen, "b"));
    EXPECT_THAT(textsAt(track, 2999), ElementsAre("a"));
    EXPECT_THAT(textsAt(track, 3000), ElementsAre("b"));
    track.add(line(1000, kOpen, "a"));  // read again
    EXPECT_THAT(textsAt(track, 3500), ElementsAre("b"));
    track.add(line(2000, kOpen, "between"));
    EXPECT_THAT(textsAt(track, 2500), ElementsAre("between"));
    EXPECT_THAT(textsAt(track, 3500), ElementsAre("b"));
}

TEST(SubtitleTrack, ReplacesPicturesByTheNextOnesOrByNothing) {
    SubtitleTrack track(pictures());
    track.add(picture(1000, 30'000));
    track.add(picture(2000, kOpen, 3));
    SubtitleEvent nothing;
    nothing.startMs = 3000;
    track.add(nothing);
    EXPECT_EQ(track.at(1500).events.size(), 1U);
    ASSERT_EQ(track.at(2500).events.size(), 1U);
    EXPECT_EQ(track.at(2500).events[0]->bitmaps[0].width, 3);
    EXPECT_THAT(track.at(3000).events, IsEmpty());
    track.add(picture(1000, 30'000));
    EXPECT_EQ(track.all().size(), 2U);
}

TEST(SubtitleTrack, ForgetsPicturesAtAGapAndKeepsText) {
    SubtitleTrack shown(pictures());
    shown.add(picture(1000, kOpen));
    shown.gap();
    EXPECT_THAT(shown.at(1500).events, IsEmpty());
    SubtitleTrack read({});
    read.add(line(1000, 2000, "a"));
    read.gap();
    EXPECT_THAT(textsAt(read, 1500), ElementsAre("a"));
}

TEST(SubtitleTrack, HasRoomAgainBehindAGap) {
    SubtitleTrack track(pictures());
    for (int i = 0; i < 40; ++i) {
        track.add(picture(i * 1000, kOpen, 1 << 20));
        const auto version = track.version();
        track.gap();
        EXPECT_NE(track.version(), version);
    }
    track.add(picture(1000, kOpen, 1 << 20));
    track.add(picture(2000, kOpen, 1 << 20));
    EXPECT_EQ(track.all().size(), 2U);
}

TEST(SubtitleTrack, KeepsTwentyThousandLines) {
    SubtitleTrack track({});
    for (int i = 0; i <= 20'000; ++i) {
        track.add(line(i, i + 1, "a"));
    }
    EXPECT_EQ(track.all().size(), 20'000U);
    EXPECT_THAT(textsAt(track, 0), IsEmpty());
    EXPECT_THAT(textsAt(track, 1), ElementsAre("a"));
}

TEST(SubtitleTrack, KeepsWhatIsNearWhenItsMemoryIsFull) {
    SubtitleTrack track({});
    const std::string longText(1 << 20, 'x');
    for (int i = 0; i < 100; ++i) {
        track.add(line(i * 1000, i * 1000 + 1000, longText + std::to_string(i)));
    }
    EXPECT_LT(track.all().size(), 40U);
    EXPECT_GT(track.all().size(), 20U);
    EXPECT_EQ(track.at(99'500).events.size(), 1U);
    EXPECT_THAT(track.at(500).events, IsEmpty());
    track.add(line(500, 700, "back"));
    EXPECT_EQ(textsAt(track, 600), std::vector<std::string>{"back"});
}

}  // namespace
}  // namespace kelp::test
