#include <utility>

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

// Changes while it is read. Two videos, streams 0 and 2, and two sounds, 1 and 3; a second has 90000 ticks in the
// former, 44100 in the latter.
class StreamParserTrackChange : public StreamParserTest {
protected:
    StreamParserTrackChange() {
        hooks().seekFile = [this](AVFormatContext*, int, int64_t, int64_t ts, int64_t, int) {
            seeks.push_back(ts);
            return 0;
        };
    }

    void openInput(bool canGoBack, const std::string& format = "matroska") {
        SyntheticInput input;
        input.formatName = format;
        input.streams = {videoStream(), audioStream(), videoStream(AV_CODEC_ID_HEVC), audioStream(AV_CODEC_ID_MP3)};
        input.install();
        hooks().openInput = [make = hooks().openInput, canGoBack](auto* context, const char* path, auto* options) {
            const int result = make(context, path, options);
            (*context)->pb->seekable = canGoBack ? AVIO_SEEKABLE_NORMAL : 0;
            return result;
        };
        ASSERT_TRUE(parser->open("input", 0));
    }
    // Between two reads; it is carried out behind the next one.
    void select(TrackKind kind, int number) {
        script.then([=, this] { parser->selectTrack(kind, number); });
    }

    // Runs a script that ends with the input's end.
    void playToEnd() {
        script.install();
        ASSERT_TRUE(parser->start());
        EXPECT_TRUE(observer->waitFor("completed"));
        parser->stop();
    }

    std::vector<int64_t> seeks;  // of the demuxer, in microseconds
};

TEST_F(StreamParserTrackChange, ReadsTheSoundAgainFromWhereItIsHeardAndTheVideoNotTwice) {
    openInput(/*canGoBack=*/true);
    observer->audibleMs = 1000;
    script.key(0).audio(0).video(90000).audio(44100).video(180000);
    select(TRACK_KIND_AUDIO, 3);
    script.audio(88200);
    // From the key frame before. Sound is needed from 800 ms on.
    script.key(0).audio(0, 3).audio(35000, 3).audio(40000, 3).video(90000).audio(44100, 3).video(180000);
    script.video(270000).audio(132300, 3);
    runScript();
    EXPECT_THAT(seeks, ElementsAre(800'000));
    EXPECT_THAT(observer->events(), ElementsAre("video 0 key", "first video 0", "audio 0", "video 90000 found",
                                                "audio 44100", "video 180000 found", "audio 88200", "sound read again",
                                                "audio 40000", "audio 44100", "video 270000 found", "audio 132300"));
    const auto packets = observer->audioPackets();
    EXPECT_EQ(packets[2]->track, nullptr);
    ASSERT_NE(packets[3]->track, nullptr);
    EXPECT_EQ(packets[3]->track->audioCodecType, AUDIO_CODEC_MP3);
    EXPECT_NE(packets[3]->track->audioParameters, nullptr);
    EXPECT_EQ(packets.back()->track, packets[3]->track);
    EXPECT_EQ(observer->videoPackets().back()->track, nullptr);
}

TEST_F(StreamParserTrackChange, ReadsOnThroughFullQueuesWhileItReadsAgain) {
    openInput(true);
    observer->audibleMs = 0;
    script.key(0).audio(0).video(90000);
    select(TRACK_KIND_AUDIO, 3);
    script.audio(44100).then([this] { observer->videoPackets_ = 1000; });
    script.key(0).audio(0, 3).then([this] { observer->videoPackets_ = 0; }).video(90000).audio(44100, 3);
    runScript();
    EXPECT_EQ(observer->count("audio 44100"), 2);
}

TEST_F(StreamParserTrackChange, DoesNotTrustATimeFromBeforeASeek) {
    openInput(true);
    observer->audibleMs = 50000;
    script.key(0).then([this] { parser->seek(10000); }).audio(0);
    script.key(900000).audio(441000).video(990000);
    select(TRACK_KIND_AUDIO, 3);
    script.audio(485100).key(900000).audio(441000, 3);
    runScript();
    EXPECT_THAT(seeks, ElementsAre(10'000'000, 9'800'000));
    EXPECT_EQ(observer->events().back(), "audio 441000");
}

TEST_F(StreamParserTrackChange, PlaysTheSoundBehindWhatWasReadWhereTheSourceCantGoBack) {
    openInput(false);
    observer->audibleMs = 0;
    script.key(0).audio(0);
    select(TRACK_KIND_AUDIO, 3);
    script.audio(1000).audio(2000, 3).audio(2000).audio(3000, 3);
    runScript();
    EXPECT_THAT(seeks, IsEmpty());
    EXPECT_THAT(observer->events(),
                ElementsAre("video 0 key", "first video 0", "audio 0", "audio 1000", "audio 2000", "audio 3000"));
    EXPECT_NE(observer->audioPackets()[2]->track, nullptr);
    EXPECT_THAT(logLines("unknown stream"), IsEmpty());
}

TEST_F(StreamParserTrackChange, TakesTheVideoFromItsKeyFrameWhenTheOldOneHasComeAsFar) {
    openInput(true);
    script.key(0);
    select(TRACK_KIND_VIDEO, 2);
    script.video(3600).packet(2, 3600, 0).packet(2, 90000, AV_PKT_FLAG_KEY).packet(2, 93600, 0);
    script.video(86400).audio(1000).video(90000).video(93600).packet(2, 97200, 0);
    runScript();
    EXPECT_THAT(observer->events(),
                ElementsAre("video 0 key", "first video 0", "video 3600 found", "video 86400 found", "audio 1000",
                            "video 90000 found", "video 90000 key found", "video 93600 found", "video 97200 found"));
    const auto packets = observer->videoPackets();
    EXPECT_EQ(packets[3]->track, nullptr);
    ASSERT_NE(packets[4]->track, nullptr);
    EXPECT_EQ(packets[4]->track->videoCodecType, VIDEO_CODEC_HEVC);
    EXPECT_EQ(packets[6]->track, packets[4]->track);
    EXPECT_THAT(seeks, IsEmpty());
}

TEST_F(StreamParserTrackChange, TakesTheVideoAtItsKeyFrameWhereTheOldOneIsOver) {
    openInput(true);
    script.key(0).video(3600);
    select(TRACK_KIND_VIDEO, 2);
    script.audio(441000).packet(2, 90000, AV_PKT_FLAG_KEY).packet(2, 93600, 0).audio(44100);
    script.packet(2, 183600, 0).packet(2, 187200, 0).audio(88200).packet(2, 190800, 0);
    runScript();
    EXPECT_THAT(observer->events(),
                ElementsAre("video 0 key", "first video 0", "video 3600 found", "audio 441000", "audio 44100",
                            "video 90000 key found", "video 93600 found", "video 183600 found", "video 187200 found",
                            "audio 88200", "video 190800 found"));
}

// No packet of the old one tells any more that what is read again ends here.
TEST_F(StreamParserTrackChange, TakesTheVideoWhereTheOldOneIsOverWhileItIsReadAgain) {
    openInput(true);
    observer->audibleMs = 10000;
    script.key(0).audio(0).video(90000).audio(441000).audio(485100);
    select(TRACK_KIND_AUDIO, 3);
    script.audio(529200).audio(441000, 3);
    select(TRACK_KIND_VIDEO, 2);
    // Behind a seek that missed its place; what has been seen isn't shown again.
    script.audio(445100, 3).packet(2, 3600, AV_PKT_FLAG_KEY).packet(2, 7200, 0);
    script.packet(2, 900000, AV_PKT_FLAG_KEY).packet(2, 903600, 0);
    runScript();
    EXPECT_THAT(seeks, ElementsAre(9'800'000));
    EXPECT_THAT(observer->events(),
                ElementsAre("video 0 key", "first video 0", "audio 0", "video 90000 found", "audio 441000",
                            "audio 485100", "audio 529200", "sound read again", "audio 441000", "audio 445100",
                            "video 900000 key found", "video 903600 found"));
    EXPECT_EQ(observer->videoPackets().back()->track->videoCodecType, VIDEO_CODEC_HEVC);
}

TEST_F(StreamParserTrackChange, TakesTheVideoThatWaitsAtASeekAndAtTheEnd) {
    openInput(true);
    script.key(0);
    select(TRACK_KIND_VIDEO, 2);
    script.video(3600).then([this] { parser->seek(10000); }).video(7200);
    script.packet(0, 900000, AV_PKT_FLAG_KEY).packet(2, 900000, AV_PKT_FLAG_KEY);
    select(TRACK_KIND_VIDEO, 0);
    script.packet(2, 903600, 0).packet(0, 950000, AV_PKT_FLAG_KEY).endOfFile();
    playToEnd();
    std::vector<VideoCodecType> codecs;
    for (const auto& packet : observer->videoPackets()) {
        if (packet->pts >= 900000) {
            codecs.push_back(packet->track->videoCodecType);
        }
    }
    EXPECT_THAT(codecs, ElementsAre(VIDEO_CODEC_HEVC, VIDEO_CODEC_HEVC, VIDEO_CODEC_H264));
    EXPECT_EQ(observer->count("end found"), 1);
}

TEST_F(StreamParserTrackChange, TellsTheDecoderOfTheEndOnceThoughItIsReadTwice) {
    openInput(true);
    observer->audibleMs = 0;
    observer->videoFrames_ = 1;
    bool asked = false;
    observer->onEvent = [&](const std::string& event) {
        if (event.starts_with("file end")) {
            if (!std::exchange(asked, true)) {
                parser->selectTrack(TRACK_KIND_AUDIO, 3);
            } else {
                observer->videoFrames_ = 0;
            }
        }
    };
    script.key(0).audio(0).video(3600).endOfFile();
    script.key(0).audio(0, 3).video(3600).audio(1000, 3).endOfFile();
    playToEnd();
    EXPECT_EQ(observer->count("end found"), 1);
    EXPECT_EQ(observer->count("completed"), 1);
    EXPECT_EQ(observer->count("audio 1000"), 1);
    EXPECT_EQ(observer->count("video 3600 found"), 1);
}

}  // namespace
}  // namespace kelp::test
