#include "input/track_list.h"

#include "input/input_files.h"
#include "input/stream_parser_fixture.h"

extern "C" {
#include <libavformat/avformat.h>
}

namespace kelp::test {
namespace {

class TrackList : public StreamParserTest {
protected:
    std::vector<Track> tracksOfFile(const std::string& name) {
        EXPECT_TRUE(parser->open(inputFile(name), 0));
        return parser->getStreamInfo()->tracks;
    }

    std::vector<Track> tracksOf(std::vector<SyntheticStream> streams) {
        SyntheticInput input;
        input.streams = std::move(streams);
        EXPECT_TRUE(open(input));
        return parser->getStreamInfo()->tracks;
    }
};

TEST_F(TrackList, TellsOfEachTrackWhatTheFileSays) {
    const auto tracks = tracksOfFile("tracks.mkv");
    ASSERT_EQ(tracks.size(), 4U);
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(tracks[i].number, i);
        EXPECT_EQ(tracks[i].kind, i == 0 || i == 3 ? TRACK_KIND_VIDEO : TRACK_KIND_AUDIO) << i;
        EXPECT_EQ(tracks[i].codec, i == 0 || i == 3 ? "mpeg4" : "mp3") << i;
        EXPECT_FALSE(tracks[i].isAttachedPicture) << i;
        EXPECT_TRUE(tracks[i].isPlayable) << i;
    }
    EXPECT_EQ(tracks[0].width, 160);
    EXPECT_EQ(tracks[0].height, 120);
    EXPECT_EQ(tracks[0].frameRate, 25);
    EXPECT_EQ(tracks[0].language, "");
    EXPECT_EQ(tracks[0].title, "");
    EXPECT_EQ(tracks[1].language, "eng");
    EXPECT_EQ(tracks[1].title, "The film");
    EXPECT_FALSE(tracks[1].isDefault);
    EXPECT_EQ(tracks[1].sampleRate, 44100);
    EXPECT_EQ(tracks[1].channels, 2);
    EXPECT_EQ(tracks[2].language, "fin");
    EXPECT_EQ(tracks[2].title, "Ohjaajan ääni");
    EXPECT_TRUE(tracks[2].isDefault);
    EXPECT_EQ(tracks[2].sampleRate, 22050);
    EXPECT_EQ(tracks[2].channels, 1);
    EXPECT_EQ(tracks[2].width, 0);
}

TEST_F(TrackList, TellsACoverFromAFilm) {
    const auto tracks = tracksOfFile("cover.m4a");
    ASSERT_EQ(tracks.size(), 2U);
    EXPECT_FALSE(tracks[0].isAttachedPicture);
    EXPECT_TRUE(tracks[1].isAttachedPicture);
    EXPECT_EQ(tracks[1].codec, "mjpeg");
    EXPECT_EQ(tracks[1].width, 160);
    EXPECT_EQ(tracks[1].frameRate, 0);
    EXPECT_EQ(tracks[0].language, "");
}

TEST_F(TrackList, SaysWhichCanBePlayed) {
    const std::vector<SyntheticStream> streams = {videoStream(), audioStream(), videoStream(AV_CODEC_ID_VP9),
                                                  audioStream(AV_CODEC_ID_FLAC), audioStream(AV_CODEC_ID_NONE)};
    const auto playable = [](const std::vector<Track>& tracks) {
        std::vector<bool> answers;
        for (const auto& track : tracks) {
            answers.push_back(track.isPlayable);
        }
        return answers;
    };
    EXPECT_THAT(playable(tracksOf(streams)), testing::ElementsAre(true, true, false, false, false));
    parser->close();
    parser->setPlaybackOptions({.allCodecs = true});
    EXPECT_THAT(playable(tracksOf(streams)), testing::ElementsAre(true, true, true, true, false));
    parser->close();
    hooks().findDecoder = [](AVCodecID id) {
        return id == AV_CODEC_ID_AAC ? nullptr : __real_avcodec_find_decoder(id);
    };
    EXPECT_THAT(playable(tracksOf(streams)), testing::ElementsAre(true, false, true, true, false));
}

TEST_F(TrackList, TellsSubtitlesAndDataFromPictureAndSound) {
    SyntheticStream subtitle;
    subtitle.type = AVMEDIA_TYPE_SUBTITLE;
    subtitle.codec = AV_CODEC_ID_SUBRIP;
    subtitle.tags = {{"language", "und"}, {"title", "Caf\xE9 au lait"}};
    SyntheticStream data;
    data.type = AVMEDIA_TYPE_DATA;
    data.codec = AV_CODEC_ID_NONE;
    const auto tracks = tracksOf({videoStream(), subtitle, data});
    ASSERT_EQ(tracks.size(), 3U);
    EXPECT_EQ(tracks[1].kind, TRACK_KIND_SUBTITLE);
    EXPECT_EQ(tracks[1].codec, "subrip");
    EXPECT_EQ(tracks[1].language, "");
    EXPECT_EQ(tracks[1].title, "Caf\uFFFD au lait");
    EXPECT_TRUE(tracks[1].isPlayable);
    EXPECT_EQ(tracks[2].kind, TRACK_KIND_OTHER);
    EXPECT_FALSE(tracks[2].isPlayable);
}

TEST_F(TrackList, SaysWhichArePlayed) {
    const auto tracks = tracksOf({audioStream(), videoStream(), audioStream()});
    EXPECT_TRUE(tracks[0].isPlayed);
    EXPECT_TRUE(tracks[1].isPlayed);
    EXPECT_FALSE(tracks[2].isPlayed);
    parser->close();
    // Of what is taken but can't be played nothing is heard.
    EXPECT_FALSE(tracksOf({videoStream(), audioStream(AV_CODEC_ID_FLAC)})[1].isPlayed);
    parser->close();
    EXPECT_TRUE(parser->getStreamInfo()->tracks.empty());
}

}  // namespace
}  // namespace kelp::test
