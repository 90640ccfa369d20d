// Exact seeks: how far back the input goes, and what is read while a picture is waited for.

#include <utility>

#include "input/stream_parser_fixture.h"

namespace kelp::test {
namespace {

using testing::ElementsAre;

class StreamParserExact : public StreamParserTest {
protected:
    StreamParserExact() {
        hooks().seekFile = [this](AVFormatContext*, int, int64_t, int64_t ts, int64_t maxTs, int) {
            places.emplace_back(ts, maxTs);
            return static_cast<int>(places.size()) == failing ? -1 : 0;
        };
    }

    // Plays a little and seeks to `ms`; what is read then is the script's to tell.
    void seekTo(int ms) {
        SyntheticInput input;
        input.formatName = "matroska";
        ASSERT_TRUE(open(input));
        script.key(0).audio(0).then([this, ms] {
            observer->clearEvents();
            parser->seek(ms, SeekRule::Exact);
        });
        script.audio(1);  // read when the seek is asked for
    }

    // What was told behind the seek.
    std::vector<std::string> told() {
        auto events = observer->events();
        const auto end = std::find(events.begin(), events.end(), "seek completed");
        return end == events.end() ? events : std::vector<std::string>(end + 1, events.end());
    }

    std::vector<std::pair<int64_t, int64_t>> places;  // asked of the demuxer, and the limit, in microseconds
    int failing = 0;                                  // the how manieth of them fails
};

TEST_F(StreamParserExact, GoesFartherBackUntilAKeyFrameIsInTime) {
    seekTo(10'000);
    script.key(11 * kSecond).audio(9 * kSoundSecond).key(10 * kSecond + 90);
    script.audio(8 * kSoundSecond).video(8 * kSecond).key(9 * kSecond).video(9 * kSecond + 3600);
    runScript();
    EXPECT_THAT(places, ElementsAre(std::pair(10'000'000, 10'000'000), std::pair(9'000'000, 9'000'000),
                                    std::pair(8'000'000, 8'000'000)));
    // Nothing of what lay too far, and the rest in its order.
    EXPECT_THAT(told(), ElementsAre("audio 352800", "first audio 352800", "video 810000 key", "video 813600 found"));
    EXPECT_EQ(observer->count("seek start 10000"), 1);
}

TEST_F(StreamParserExact, GoesBackForTheSoundOnceIfItBeginsLater) {
    seekTo(10'000);
    script.key(9 * kSecond).audio(12 * kSoundSecond).key(7 * kSecond).audio(12 * kSoundSecond).video(8 * kSecond);
    runScript();
    EXPECT_EQ(places.size(), 2U);
    EXPECT_THAT(told(), ElementsAre("video 630000 key", "first video 630000", "audio 529200", "video 720000 found"));
}

TEST_F(StreamParserExact, TakesWhatThereIsFromTheStartOn) {
    seekTo(500);
    script.key(kSecond).key(kSecond).audio(0).video(2 * kSecond);
    runScript();
    EXPECT_THAT(places, ElementsAre(std::pair(500'000, 500'000), std::pair(0, 0)));
    EXPECT_THAT(told(), ElementsAre("video 90000 key", "first video 90000", "audio 0", "video 180000 found"));
}

TEST_F(StreamParserExact, GoesBackFromAnEndWithoutAKeyFrame) {
    seekTo(10'000);
    script.audio(10 * kSoundSecond).video(10 * kSecond).endOfFile();
    script.key(9 * kSecond).audio(9 * kSoundSecond).endOfFile();
    startStepping();
    EXPECT_THAT(places, ElementsAre(std::pair(10'000'000, 10'000'000), std::pair(9'000'000, 9'000'000)));
    // The end of the sound is told as well: a seek behind it ends with its last block.
    EXPECT_THAT(told(), ElementsAre("video 810000 key", "first video 810000", "audio 396900", "end found", "audio -1",
                                    "file end 9000 9000", "completed"));
}

TEST_F(StreamParserExact, ReadsOnAtTheFirstPlaceIfItCantGoFartherBack) {
    failing = 2;
    seekTo(10'000);
    script.key(11 * kSecond).key(11 * kSecond).video(11 * kSecond + 3600);
    runScript();
    EXPECT_THAT(places, ElementsAre(std::pair(10'000'000, 10'000'000), std::pair(9'000'000, 9'000'000),
                                    std::pair(10'000'000, 10'000'000)));
    EXPECT_THAT(told(), ElementsAre("video 990000 key", "first video 990000", "video 993600 found"));
}

TEST_F(StreamParserExact, DropsWhatIsHeldForANewerSeek) {
    seekTo(10'000);
    script.key(9 * kSecond).then([this] { parser->seek(20'000, SeekRule::Exact); }).video(9 * kSecond + 3600);
    script.audio(19 * kSoundSecond).key(19 * kSecond);
    runScript();
    EXPECT_EQ(observer->count("video 810000 key"), 0);
    EXPECT_EQ(observer->events().back(), "video 1710000 key");
    EXPECT_EQ(places.size(), 2U);
}

TEST_F(StreamParserExact, LeavesAStandardSeekWhereItLands) {
    SyntheticInput input;
    input.formatName = "matroska";
    ASSERT_TRUE(open(input));
    script.key(0).then([this] { parser->seek(10'000); }).audio(0).key(11 * kSecond).endOfFile();
    startStepping();
    EXPECT_EQ(places.size(), 1U);
    EXPECT_EQ(observer->count("video 990000 key"), 1);
    EXPECT_EQ(observer->count("audio -1"), 0);
}

// Full queues.

TEST_F(StreamParserExact, ReadsSoundOnWhileAPictureIsAwaited) {
    ASSERT_TRUE(open());
    observer->audioPackets_ = 200;
    observer->isPictureAwaited_ = true;
    observer->onEvent = [this](const std::string& event) { observer->isPictureAwaited_ = event != "audio 3"; };
    script.key(0).audio(1).audio(2).audio(3).audio(4);
    startStepping();
    EXPECT_EQ(observer->events().back(), "audio 3");

    // Not where pictures enough are there.
    parser->stop();
    parser->close();
    observer->onEvent = nullptr;
    observer->clearEvents();
    observer->isPictureAwaited_ = true;
    observer->videoPackets_ = 10;
    FakeTime::reset();
    ASSERT_TRUE(open());
    startStepping();
    EXPECT_TRUE(observer->events().empty());
}

TEST_F(StreamParserExact, EndsThePicturesWhereSoundHasRunMinutesAhead) {
    ASSERT_TRUE(open());
    observer->isPictureAwaited_ = true;
    script.key(0).video(3600).then([this] { observer->audioPackets_ = 10'000; }).audio(0);
    script.video(7200).key(10'800).endOfFile();
    startStepping();
    EXPECT_EQ(observer->events().back(), "flush");
    observer->audioPackets_ = 0;
    step(100);
    EXPECT_THAT(observer->events(),
                ElementsAre("video 0 key", "first video 0", "video 3600 found", "audio 0", "end found", "flush",
                            "video 10800 key", "end found", "file end 120 0", "completed"));
}

}  // namespace
}  // namespace kelp::test
