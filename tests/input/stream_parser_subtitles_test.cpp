// Which subtitles are read, from when on.

#include "input/stream_parser_fixture.h"

namespace kelp::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

SyntheticStream subtitleStream(AVCodecID codec = AV_CODEC_ID_SUBRIP) {
    SyntheticStream stream;
    stream.type = AVMEDIA_TYPE_SUBTITLE;
    stream.codec = codec;
    stream.timeBase = {1, 1000};
    return stream;
}

// Video and sound are streams 0 and 1, text 2 and 3, and what nobody decodes 4.
class StreamParserSubtitles : public StreamParserTest {
protected:
    StreamParserSubtitles() {
        input.streams = {videoStream(), audioStream(), subtitleStream(), subtitleStream(AV_CODEC_ID_ASS),
                         subtitleStream(AV_CODEC_ID_NONE)};
        hooks().seekFile = [this](AVFormatContext*, int, int64_t, int64_t ts, int64_t, int) {
            seeks.push_back(ts);
            return 0;
        };
    }

    void openWith(int subtitleTrack, bool canGoBack = true) {
        parser->setPlaybackOptions({.subtitleTrack = subtitleTrack});
        input.install();
        hooks().openInput = [make = hooks().openInput, canGoBack](auto* context, const char* path, auto* options) {
            const int result = make(context, path, options);
            (*context)->pb->seekable = canGoBack ? AVIO_SEEKABLE_NORMAL : 0;
            return result;
        };
        ASSERT_TRUE(parser->open("input", 0));
    }
    ReadScript& subtitle(int64_t pts, int stream = 2) { return script.packet(stream, pts, AV_PKT_FLAG_KEY); }
    void select(int number) {
        script.then([=, this] { parser->selectTrack(TRACK_KIND_SUBTITLE, number); });
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

    SyntheticInput input;
    std::vector<int64_t> seeks;  // of the demuxer, in microseconds
};

TEST_F(StreamParserSubtitles, AreNotReadUnlessChosen) {
    for (const int option : {PlaybackOptions::kAutoTrack, PlaybackOptions::kNoTrack}) {
        openWith(option);
        EXPECT_THAT(played(), ElementsAre(0, 1));
        parser->close();
    }
    EXPECT_THAT(subtitles->calls, IsEmpty());
    EXPECT_THAT(logLines("_track"), IsEmpty());
}

TEST_F(StreamParserSubtitles, GoToTheirTakerAndNowhereElse) {
    input.startTimeUs = 500'000;
    openWith(3);
    EXPECT_THAT(played(), ElementsAre(0, 1, 3));
    script.key(0);
    subtitle(700, 3);
    script.audio(0);
    subtitle(900, 3);
    script.video(3600);
    runScript();
    EXPECT_THAT(subtitles->calls, ElementsAre("stream 3 500000", "packet 700", "packet 900"));
    EXPECT_EQ(observer->events().size(), 4U);
    EXPECT_THAT(logLines("unknown stream"), IsEmpty());
}

// A demuxer has read some of each stream before it is told which are wanted.
TEST_F(StreamParserSubtitles, OfOtherTracksAreLeftOut) {
    openWith(3);
    script.key(0);
    subtitle(700, 2);
    subtitle(700, 3);
    runScript();
    EXPECT_THAT(subtitles->calls, ElementsAre("stream 3 0", "packet 700"));
    EXPECT_THAT(logLines("unknown stream"), IsEmpty());
}

TEST_F(StreamParserSubtitles, AreLeftOutWithoutAWordWhereAllCodecsArePlayed) {
    for (const bool playsAll : {false, true}) {
        parser->setPlaybackOptions({.allCodecs = playsAll});
        input.install();
        ASSERT_TRUE(parser->open("input", 0));
        script.key(0);
        subtitle(700, 2);
        runScript();
        EXPECT_EQ(logLines("unknown stream").size(), playsAll ? 0U : 1U);
        parser->close();
        log.clear();
    }
    EXPECT_THAT(subtitles->calls, IsEmpty());
}

TEST_F(StreamParserSubtitles, AreNoneWhereTheTrackCantBeShown) {
    for (const int wrong : {0, 1, 4, 5, 1'000'000}) {
        openWith(wrong);
        EXPECT_THAT(played(), ElementsAre(0, 1)) << wrong;
        EXPECT_THAT(logLines("_track"), ElementsAre("subtitle_track " + std::to_string(wrong) +
                                                    " is none that can be played, taking auto\n"));
        parser->close();
        log.clear();
    }
    EXPECT_THAT(subtitles->calls, IsEmpty());
}

TEST_F(StreamParserSubtitles, MayBeOfAnotherFileBehindTheOwnTracks) {
    for (const int wanted : {0, 4, 5, 1'000'000}) {
        parser->setPlaybackOptions({.subtitleTrack = wanted, .subtitleFile = "beside.srt"});
        input.install();
        ASSERT_TRUE(parser->open("input", 0));
        EXPECT_EQ(logLines("_track").size(), wanted < 5 ? 1U : 0U) << wanted;
        parser->close();
        log.clear();
    }
    EXPECT_THAT(subtitles->calls, IsEmpty());
}

TEST_F(StreamParserSubtitles, KnowOfASeek) {
    openWith(2);
    script.key(0).audio(0);
    subtitle(100);
    script.then([this] { parser->seek(10000); }).video(3600);
    script.key(900000);
    subtitle(10100);
    runScript();
    EXPECT_THAT(subtitles->calls, ElementsAre("stream 2 0", "packet 100", "gap", "packet 10100"));
}

TEST_F(StreamParserSubtitles, StayKnownAtATurnOfALoop) {
    openWith(2);
    parser->setLoop(Loop{0, 1000});
    script.key(0).audio(0);
    subtitle(100);
    script.key(90'000).audio(44'100).key(0);
    subtitle(100);
    runScript();
    EXPECT_THAT(subtitles->calls, ElementsAre("stream 2 0", "packet 100", "turn", "packet 100"));
}

TEST_F(StreamParserSubtitles, AreReadFromBeforeWhatIsSeenAndNothingElseTwice) {
    openWith(PlaybackOptions::kAutoTrack);
    observer->shownMs = 15'000;
    script.key(0).audio(0).video(90000).audio(44100);
    select(2);
    script.video(180000);
    script.key(0).audio(0);
    subtitle(500);
    script.video(90000).audio(44100);
    subtitle(1500);
    script.video(180000).video(270000).audio(88200);
    runScript();
    EXPECT_THAT(seeks, ElementsAre(5'000'000));
    EXPECT_THAT(subtitles->calls, ElementsAre("stream 2 0", "gap", "packet 500", "packet 1500"));
    EXPECT_THAT(observer->events(),
                ElementsAre("video 0 key", "first video 0", "audio 0", "video 90000 found", "audio 44100",
                            "video 180000 found", "video 270000 found", "audio 88200"));
}

TEST_F(StreamParserSubtitles, AreReadFromBeforeTheFirstPictureWhereNoneHasBeenShown) {
    openWith(PlaybackOptions::kAutoTrack);
    script.key(0).then([this] { parser->seek(30'000); }).audio(0).key(2'700'000);
    select(2);
    script.audio(1'323'000).key(2'700'000);
    runScript();
    EXPECT_THAT(seeks, ElementsAre(30'000'000, 20'000'000));
}

// The sound is over, so that nothing of it is read once more.
TEST_F(StreamParserSubtitles, LetTheQueuesBeFullThoughAStreamIsOver) {
    openWith(PlaybackOptions::kAutoTrack);
    observer->shownMs = 15'000;
    observer->recordPolls = true;
    int looks = 0;  // behind which the parser rests
    observer->onEvent = [&](const std::string& event) {
        if (event == "video 180000 found") {
            observer->videoPackets_ = 1000;
        } else if (event == "af" && observer->videoPackets_ == 1000) {
            ++looks;
            observer->videoPackets_ = 0;
        }
    };
    script.key(0).audio(0).video(90000);
    select(2);
    script.video(93600);
    script.video(90000).video(93600).video(180000).video(183600);
    runScript();
    EXPECT_THAT(seeks, ElementsAre(5'000'000));
    EXPECT_EQ(looks, 1);
    EXPECT_EQ(observer->count("video 183600 found"), 1);
}

TEST_F(StreamParserSubtitles, ComeWithWhatIsReadNextWhereTheSourceCantGoBack) {
    openWith(2, /*canGoBack=*/false);
    script.key(0);
    subtitle(100);
    select(3);
    script.audio(0);
    subtitle(200);  // the demuxer had it already
    subtitle(300, 3);
    select(-1);
    script.video(3600);
    subtitle(400, 3);
    runScript();
    EXPECT_THAT(seeks, IsEmpty());
    EXPECT_THAT(subtitles->calls, ElementsAre("stream 2 0", "packet 100", "stream 3 0", "gap", "packet 300", "gap"));
    EXPECT_THAT(logLines("unknown stream"), IsEmpty());
}

TEST_F(StreamParserSubtitles, OfATrackThatWasLeftAreNoMistake) {
    openWith(PlaybackOptions::kAutoTrack, /*canGoBack=*/false);
    script.key(0);
    select(2);
    script.audio(0);
    subtitle(100);
    select(-1);
    script.video(3600);
    subtitle(200);  // the demuxer had it already
    runScript();
    EXPECT_THAT(subtitles->calls, ElementsAre("stream 2 0", "gap", "packet 100", "gap"));
    EXPECT_THAT(logLines("unknown stream"), IsEmpty());
}

TEST_F(StreamParserSubtitles, AndTheSoundMayChangeTogether) {
    input.streams.push_back(audioStream(AV_CODEC_ID_MP3));
    openWith(PlaybackOptions::kAutoTrack);
    observer->shownMs = observer->audibleMs = 1000;
    script.key(0).audio(0).video(90000).audio(44100);
    script.then([this] {
        parser->selectTrack(TRACK_KIND_SUBTITLE, 2);
        parser->selectTrack(TRACK_KIND_AUDIO, 5);
    });
    script.video(180000);
    script.key(0).audio(0, 5);
    subtitle(500);
    script.audio(44100, 5).video(90000).video(180000).video(270000).audio(88200, 5);
    runScript();
    EXPECT_THAT(seeks, ElementsAre(800'000, 0));
    EXPECT_EQ(subtitles->calls.back(), "packet 500");
    EXPECT_THAT(observer->events(), ElementsAre("video 0 key", "first video 0", "audio 0", "video 90000 found",
                                                "audio 44100", "video 180000 found", "sound read again", "audio 44100",
                                                "video 270000 found", "audio 88200"));
}

}  // namespace
}  // namespace kelp::test
