#include "input/stream_parser_fixture.h"

namespace kelp::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr int kAuto = PlaybackOptions::kAutoTrack;
constexpr int kNone = PlaybackOptions::kNoTrack;

// Which tracks the options choose.
class StreamParserTracks : public StreamParserTest {
protected:
    // Two tracks of each kind that can be played, and behind them one of each that can't; whether it worked.
    bool openWith(int videoTrack, int audioTrack) {
        SyntheticInput input;
        input.streams = {videoStream(),
                         audioStream(),
                         videoStream(AV_CODEC_ID_HEVC),
                         audioStream(AV_CODEC_ID_MP3),
                         videoStream(AV_CODEC_ID_VP9),
                         audioStream(AV_CODEC_ID_FLAC)};
        parser->close();
        parser->setPlaybackOptions({.videoTrack = videoTrack, .audioTrack = audioTrack});
        log.clear();
        return open(input);
    }

    std::vector<int> played() {
        std::vector<int> numbers;
        const auto info = parser->getStreamInfo();
        for (const auto& track : info->tracks) {
            if (track.isPlayed) {
                numbers.push_back(track.number);
            }
        }
        return numbers;
    }
};

TEST_F(StreamParserTracks, TakesTheFirstOnesUnlessAskedOtherwise) {
    ASSERT_TRUE(openWith(kAuto, kAuto));
    EXPECT_THAT(played(), ElementsAre(0, 1));
    EXPECT_THAT(logLines("_track"), IsEmpty());
}

TEST_F(StreamParserTracks, TakesTheOnesThatAreAskedFor) {
    ASSERT_TRUE(openWith(2, 3));
    EXPECT_THAT(played(), ElementsAre(2, 3));
    EXPECT_THAT(logLines("_track"), IsEmpty());
    const auto codecs = parser->getCodecInfo();
    EXPECT_EQ(codecs->videoCodecType, VIDEO_CODEC_HEVC);
    EXPECT_EQ(codecs->audioCodecType, AUDIO_CODEC_MP3);
    script.packet(2, 90000, AV_PKT_FLAG_KEY).audio(44100, 3);
    runScript();
    EXPECT_THAT(observer->events(), ElementsAre("video 90000 key", "first video 90000", "audio 44100"));
}

TEST_F(StreamParserTracks, ChoosesByItselfAndWarnsWhereTheTrackCantBePlayed) {
    // There is none of that number; it is of another kind; its codec isn't played.
    for (const int video : {6, 1000000, 3, 4}) {
        ASSERT_TRUE(openWith(video, 3));
        EXPECT_THAT(played(), ElementsAre(0, 3)) << video;
        EXPECT_THAT(log.lines(), testing::Contains("[StreamParser]: video_track " + std::to_string(video) +
                                                   " is none that can be played, taking auto\n"));
        EXPECT_EQ(logLines("_track").size(), 1U);
    }
    for (const int audio : {6, 2, 5}) {
        ASSERT_TRUE(openWith(2, audio));
        EXPECT_THAT(played(), ElementsAre(1, 2)) << audio;
        EXPECT_THAT(logLines("_track"),
                    ElementsAre("audio_track " + std::to_string(audio) + " is none that can be played, taking auto\n"));
    }
}

TEST_F(StreamParserTracks, LeavesAKindOut) {
    ASSERT_TRUE(openWith(kNone, kAuto));
    EXPECT_THAT(played(), ElementsAre(1));
    EXPECT_FALSE(parser->getStreamInfo()->has_video);
    EXPECT_TRUE(parser->getStreamInfo()->has_audio);
    ASSERT_TRUE(openWith(2, kNone));
    EXPECT_THAT(played(), ElementsAre(2));
    EXPECT_TRUE(parser->getStreamInfo()->has_video);
    EXPECT_FALSE(parser->getStreamInfo()->has_audio);
    EXPECT_THAT(logLines("_track"), IsEmpty());
}

TEST_F(StreamParserTracks, FindsNothingToPlayWhereBothKindsAreLeftOut) {
    EXPECT_FALSE(openWith(kNone, kNone));
    EXPECT_THAT(logLines("No avaliable"), ElementsAre("No avaliable stream have found\n"));
    EXPECT_FALSE(parser->start());
}

}  // namespace
}  // namespace kelp::test
