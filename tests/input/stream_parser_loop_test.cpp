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

constexpr int64_t kSecond = 90'000;  // of pictures
constexpr int64_t kSoundSecond = 44'100;

class StreamParserLoop : public StreamParserTest {
protected:
    StreamParserLoop() {
        hooks().seekFile = [this](AVFormatContext*, int, int64_t, int64_t ts, int64_t, int) {
            places.push_back(ts);
            return isSeekFailing ? -1 : 0;
        };
    }

    void openFile() {
        SyntheticInput input;
        input.formatName = "matroska";
        ASSERT_TRUE(open(input));
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
    const auto turn = [this] {
        script.packet([](AVPacket* packet) {
            av_new_packet(packet, 1);
            packet->flags = AV_PKT_FLAG_KEY;
            packet->pts = packet->dts = 0;
            packet->duration = kSecond;
        });
        script.packet([](AVPacket* packet) {
            av_new_packet(packet, 1);
            packet->pts = packet->dts = kSecond;
            packet->duration = kSecond / 2;
        });
        script.endOfFile();
    };
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
    script.audio(4 * kSoundSecond).then([this] { parser->setLoop(Loop{1000, 2000}); }).video(5 * kSecond);
    script.then([this] { parser->setLoop(Loop{1000, 2000}); });
    script.video(6 * kSecond);
    script.then([this] { EXPECT_EQ(observer->count("loop changed ever"), 1) << "it was read beyond its end"; });
    script.key(kSecond).audio(0).then([this] { parser->setLoop(std::nullopt); }).video(3 * kSecond).video(4 * kSecond);
    runScript();
    EXPECT_EQ(observer->count("loop changed ever"), 1);
    EXPECT_EQ(observer->count("loop changed 2000"), 1) << "the turn before isn't to be gone back from";
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
