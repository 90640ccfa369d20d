// Loops: what is read, from where, and which turn it carries.

#include <algorithm>
#include <utility>

#include "input/stream_parser_fixture.h"

namespace kelp::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

class StreamParserLoop : public StreamParserTest {
protected:
    StreamParserLoop() {
        hooks().seekFile = [this](AVFormatContext*, int, int64_t, int64_t ts, int64_t, int) {
            places.push_back(ts);
            return isSeekFailing ? -1 : 0;
        };
    }

    void openFile(int64_t startUs = 0, AVRational pictureRate = {25, 1}) {
        SyntheticInput input;
        input.formatName = "matroska";
        input.startTimeUs = startUs;
        input.streams[0].rFrameRate = pictureRate;
        ASSERT_TRUE(open(input));
    }

    // How long a turn is of a film with pictures at 0 and 1 s that don't say how long they are.
    int64_t lengthMs(AVRational pictureRate) {
        openFile(0, pictureRate);
        parser->setLoop(Loop{});
        script.key(0).key(kSecond).endOfFile().key(0);
        runScript();
        return observer->videoPackets().back()->turn->shiftMs;
    }

    // The times in the film, in seconds, of the pictures that were handed on, and the seconds on the line of playback.
    std::vector<std::pair<double, double>> pictures() {
        std::vector<std::pair<double, double>> times;
        for (const auto& packet : observer->videoPackets()) {
            if (packet->data) {
                const double film = static_cast<double>(packet->pts) / kSecond;
                const double shift = packet->turn ? static_cast<double>(packet->turn->shiftMs) / 1000 : 0;
                times.emplace_back(film, film + shift);
            }
        }
        return times;
    }

    std::vector<int64_t> places;  // asked of the demuxer, in microseconds
    bool isSeekFailing = false;
};

TEST_F(StreamParserLoop, GoesBackAtItsEndAndTellsNoEnd) {
    openFile();
    parser->setLoop(Loop{0, 2000});
    script.key(0).audio(0).key(kSecond).audio(kSoundSecond).key(2 * kSecond).audio(2 * kSoundSecond);
    script.key(0).audio(0).key(kSecond).audio(kSoundSecond).audio(2 * kSoundSecond).key(2 * kSecond);
    script.key(0);
    runScript();
    EXPECT_THAT(places, ElementsAre(0, 0));
    EXPECT_THAT(pictures(), ElementsAre(std::pair(0., 0.), std::pair(1., 1.), std::pair(0., 2.), std::pair(1., 3.),
                                        std::pair(0., 4.)));
    EXPECT_EQ(observer->audioPackets().size(), 4U);
    EXPECT_EQ(observer->count("first video 0"), 1);
    for (const auto& event : observer->events()) {
        EXPECT_THAT(event, Not(testing::AnyOf("completed", "failed", "end found", testing::StartsWith("file end"),
                                              testing::StartsWith("seek"))));
    }
}

TEST_F(StreamParserLoop, GoesBackAtTheFilmsEnd) {
    openFile();
    parser->setLoop(Loop{});
    const auto turn = [this] { script.timed(0, 0, 0, kSecond).timed(0, kSecond, kSecond, kSecond / 2).endOfFile(); };
    turn();
    turn();
    script.key(0);
    runScript();
    EXPECT_THAT(places, ElementsAre(0, 0));
    EXPECT_THAT(pictures(), ElementsAre(std::pair(0., 0.), std::pair(1., 1.), std::pair(0., 1.5), std::pair(1., 2.5),
                                        std::pair(0., 3.)));
    EXPECT_THAT(logLines("End of file"), IsEmpty());
    EXPECT_EQ(observer->count("completed"), 0);
}

TEST_F(StreamParserLoop, TakesALastPictureForAsLongAsTheOthers) {
    EXPECT_EQ(lengthMs({25, 1}), 1040);
}

TEST_F(StreamParserLoop, EndsWithTheTimeOfALastPictureOfNoRate) {
    EXPECT_EQ(lengthMs({0, 1}), 1000);
}

TEST_F(StreamParserLoop, EndsWithThePicturesUnlessTheSoundGoesOnForLong) {
    openFile();
    parser->setLoop(Loop{});
    for (const int64_t soundTicks : {2 * kSoundSecond, 2 * kSoundSecond + 1}) {
        script.timed(0, 0, 0, kSecond).timed(1, 0, 0, soundTicks).endOfFile();
    }
    script.key(0);
    runScript();
    EXPECT_THAT(pictures(), ElementsAre(std::pair(0., 0.), std::pair(0., 1.), std::pair(0., 3.)));
}

TEST_F(StreamParserLoop, EndsWherePicturesAreDecodedAndSoundIsHeardBehindIt) {
    constexpr int64_t kNone = AV_NOPTS_VALUE;
    openFile();
    parser->setLoop(Loop{0, 2000});
    script.key(0).audio(0);
    script.timed(0, 11 * kSecond / 5, 9 * kSecond / 5);  // others that are shown before refer to it
    script.timed(0, 19 * kSecond / 10, 19 * kSecond / 10).timed(0, kNone, kNone).timed(1, kNone, kNone);
    script.timed(1, 2 * kSoundSecond, kSoundSecond).timed(0, 2 * kSecond, kNone).key(0);
    script.timed(0, kNone, 2 * kSecond).timed(1, kNone, 2 * kSoundSecond);
    script.key(0);
    runScript();
    EXPECT_THAT(pictures(), ElementsAre(std::pair(0., 0.), std::pair(2.2, 2.2), std::pair(1.9, 1.9), std::pair(0., 0.),
                                        std::pair(0., 2.), std::pair(0., 4.)));
    EXPECT_EQ(observer->audioPackets().size(), 2U);
}

TEST_F(StreamParserLoop, GoesByTheFilmsTimeWhereTheInputsBeginsLater) {
    openFile(/*startUs=*/10'000'000);
    parser->setLoop(Loop{0, 1000});
    script.key(10 * kSecond).audio(10 * kSoundSecond).key(11 * kSecond).audio(11 * kSoundSecond).key(10 * kSecond);
    runScript();
    EXPECT_THAT(places, ElementsAre(10'000'000));
    EXPECT_THAT(pictures(), ElementsAre(std::pair(0., 0.), std::pair(0., 1.)));
}

TEST_F(StreamParserLoop, GoesOnTurnByTurnBehindTheStartOfTheFilm) {
    openFile();
    parser->setLoop(Loop{1000, 2000});
    for (int turn = 0; turn < 5; ++turn) {
        script.key(kSecond).audio(kSoundSecond * 4 / 5).key(2 * kSecond).audio(2 * kSoundSecond);
    }
    script.key(kSecond).audio(0);
    runScript();
    EXPECT_THAT(places, testing::AllOf(testing::SizeIs(5), testing::Each(1'000'000)));
    EXPECT_EQ(pictures().back(), std::pair(1., 6.));
}

TEST_F(StreamParserLoop, ShowsPicturesAmongWhichNoneIsAKeyFrameAtItsEnd) {
    parser->setPlaybackOptions({.allCodecs = true});
    openFile();
    parser->setLoop(Loop{0, 1000});
    script.video(0).audio(0).video(kSecond / 2).video(kSecond).audio(kSoundSecond).audio(0);
    runScript();
    EXPECT_THAT(pictures(), ElementsAre(std::pair(0., 0.), std::pair(.5, .5)));
    EXPECT_EQ(observer->audioPackets().back()->turn->shiftMs, 1000);
}

TEST_F(StreamParserLoop, BeginsEachTurnWithAKeyFrame) {
    openFile();
    parser->setLoop(Loop{0, 1000});
    script.key(0).audio(0).video(kSecond).audio(kSoundSecond).video(kSecond / 4).key(kSecond / 2);
    runScript();
    EXPECT_THAT(pictures(), ElementsAre(std::pair(0., 0.), std::pair(.5, 1.5)));
}

TEST_F(StreamParserLoop, ReadsFromAKeyFrameAndSoundBeforeItsStart) {
    openFile();
    parser->setLoop(Loop{3000, 4000});
    script.key(3 * kSecond).audio(3 * kSoundSecond).key(4 * kSecond).audio(4 * kSoundSecond);
    script.key(3 * kSecond).audio(3 * kSoundSecond);                     // its sound has no lead
    script.key(2 * kSecond).audio(2 * kSoundSecond).video(3 * kSecond);  // 1 s before
    runScript();
    EXPECT_THAT(places, ElementsAre(3'000'000, 2'000'000));
    EXPECT_THAT(pictures(), ElementsAre(std::pair(3., 3.), std::pair(2., 3.), std::pair(3., 4.)));
    EXPECT_EQ(observer->videoPackets().back()->turn->fromUs, 3'000'000);
}

TEST_F(StreamParserLoop, ReadsFromFartherBackWhereAKeyFrameIsTooLate) {
    openFile();
    parser->setLoop(Loop{3000, 4000});
    script.key(3 * kSecond).audio(3 * kSoundSecond).key(4 * kSecond).audio(4 * kSoundSecond);
    script.audio(2 * kSoundSecond).key(7 * kSecond / 2);
    script.audio(2 * kSoundSecond).key(2 * kSecond);
    runScript();
    EXPECT_THAT(places, ElementsAre(3'000'000, 2'000'000));
    EXPECT_THAT(pictures(), ElementsAre(std::pair(3., 3.), std::pair(2., 3.)));
}

TEST_F(StreamParserLoop, ChangesByWhatWasReadOfItsTurn) {
    openFile();
    parser->setLoop(Loop{0, 2000});
    script.key(0).audio(0).video(3 * kSecond / 2).video(2 * kSecond).audio(2 * kSoundSecond);
    script.key(0).then([this] { parser->setLoop(Loop{0, 1000}); }).audio(0).video(kSecond / 2);
    runScript();
    EXPECT_EQ(observer->count("loop changed ever"), 0);
    EXPECT_EQ(observer->count("loop changed 2000"), 1);
}

TEST_F(StreamParserLoop, EndsWhereItIsTakenBack) {
    openFile();
    parser->setLoop(Loop{0, 1000});
    script.key(0).audio(0).key(kSecond).audio(kSoundSecond);
    script.key(0).audio(0).then([this] { parser->setLoop(std::nullopt); }).video(kSecond / 2).video(kSecond);
    script.audio(kSoundSecond).endOfFile();
    startStepping();
    EXPECT_THAT(pictures(), ElementsAre(std::pair(0., 0.), std::pair(0., 1.), std::pair(.5, 1.5), std::pair(1., 2.)));
    EXPECT_THAT(observer->events(), Contains("file end 1000 1000"));
    EXPECT_EQ(observer->count("completed"), 1);
}

TEST_F(StreamParserLoop, BeginsAtTheEndThatWasReadAlready) {
    openFile();
    observer->videoPackets_ = 1;
    script.key(0).audio(0).then([this] { observer->videoPackets_ = 500; }).endOfFile();
    startStepping();
    ASSERT_EQ(observer->count("file end 0 0"), 1);
    parser->setLoop(Loop{});
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    step(30);
    EXPECT_THAT(places, ElementsAre(0));
    observer->videoPackets_ = 0;
    script.key(0);
    EXPECT_EQ(observer->count("completed"), 0);
}

TEST_F(StreamParserLoop, SaysWhatWasReadThatIsNotOfIt) {
    openFile();
    parser->setLoop(Loop{0, 4000});
    script.key(0).audio(0).video(3 * kSecond).then([this] { parser->setLoop(Loop{1000, 9000}); }).video(4 * kSecond);
    script.then([this] { parser->setLoop(Loop{1000, 9000}); });
    script.audio(4 * kSoundSecond).then([this] { parser->setLoop(Loop{1000, 5000}); }).video(5 * kSecond);
    script.then([this] { parser->setLoop(Loop{1000, 5000}); });
    script.video(8 * kSecond);
    script.then([this] { EXPECT_EQ(observer->count("loop changed ever"), 1) << "it was read beyond its end"; });
    script.key(kSecond).audio(0).then([this] { parser->setLoop(std::nullopt); }).video(3 * kSecond).video(4 * kSecond);
    runScript();
    EXPECT_EQ(observer->count("loop changed ever"), 1);
    EXPECT_EQ(observer->count("loop changed 5000"), 1) << "the turn before isn't to be gone back from";
}

TEST_F(StreamParserLoop, IsGivenUpIfTheInputCantGoBack) {
    openFile();
    isSeekFailing = true;
    parser->setLoop(Loop{});
    script.key(0).audio(0).endOfFile();
    startStepping();
    EXPECT_THAT(observer->events(), Contains("file end 0 0"));
    EXPECT_EQ(observer->count("completed"), 1);
    EXPECT_FALSE(parser->loop().isBent());
}

TEST_F(StreamParserLoop, IsGivenUpIfTheFilmEndsBeforeIt) {
    openFile();
    parser->setLoop(Loop{5000, 6000});
    script.key(0).audio(0).endOfFile();
    startStepping();
    EXPECT_THAT(places, IsEmpty());
    EXPECT_EQ(logLines("the loop is given up, there is nothing in it\n").size(), 1U);
    EXPECT_EQ(observer->count("completed"), 1);
}

TEST_F(StreamParserLoop, GoesOnBehindASeek) {
    openFile();
    parser->setLoop(Loop{0, 1000});
    script.key(0).audio(0).key(kSecond).audio(kSoundSecond);
    script.key(0).then([this] { parser->seek(500); });
    script.audio(0).then([this] { EXPECT_FALSE(parser->isSeekPending()); });
    script.key(kSecond / 2).audio(kSoundSecond / 2).key(kSecond).audio(kSoundSecond);
    script.key(0);
    runScript();
    EXPECT_THAT(pictures(), ElementsAre(std::pair(0., 0.), std::pair(0., 1.), std::pair(.5, .5), std::pair(0., 1.)));
}

}  // namespace
}  // namespace kelp::test
