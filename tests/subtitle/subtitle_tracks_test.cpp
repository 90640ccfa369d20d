#include "subtitle/subtitle_tracks.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "subtitle/picture_subtitles.h"
#include "subtitle/subtitle_files.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace kelp::test {
namespace {

TEST(SubtitleTracks, ForgetsAllThatWasAddedAndChosen) {
    SubtitleTracks tracks;
    const auto track = std::make_shared<SubtitleTrack>(SubtitleTrack::Head{});
    tracks.add(3, track);
    tracks.choose(3);
    EXPECT_EQ(tracks.current(), track);
    EXPECT_TRUE(tracks.isAny());
    EXPECT_TRUE(tracks.isWhole(3));

    tracks.forget();
    EXPECT_EQ(tracks.current(), nullptr);
    EXPECT_FALSE(tracks.isAny());
    EXPECT_FALSE(tracks.isWhole(3));

    tracks.choose(3);
    EXPECT_EQ(tracks.current(), nullptr);
}

TEST(SubtitleTracks, ChoosesNothingByForgetting) {
    SubtitleTracks tracks;
    tracks.choose(3);
    tracks.forget();
    tracks.add(3, std::make_shared<SubtitleTrack>(SubtitleTrack::Head{}));
    EXPECT_EQ(tracks.current(), nullptr);
}

// The pictures of a film, as the parser hands them on: one packet for each.
class ReadSubtitleTracks : public testing::Test {
protected:
    void SetUp() override {
        const auto path = subtitlePath("tracks.mkv");
        writePictureSubtitles(path, AV_CODEC_ID_DVD_SUBTITLE,
                              {{1000, 3000, 100, 400, 64, 32}, {4000, 5000, 200, 40, 32, 16}});
        ASSERT_EQ(avformat_open_input(&input, path.c_str(), nullptr, nullptr), 0);
        for (AVPacket*& packet : packets) {
            packet = av_packet_alloc();
            ASSERT_EQ(av_read_frame(input, packet), 0);
        }
        begin(tracks);
    }
    void TearDown() override {
        for (AVPacket*& packet : packets) {
            av_packet_free(&packet);
        }
        avformat_close_input(&input);
    }

    void begin(SubtitleTracks& of) const {
        of.onSubtitleStream(*input, *input->streams[0], 0);
        of.choose(0);
    }
    // Of which only the second packet was read.
    std::vector<SubtitleTrack::Event> secondAlone() const {
        SubtitleTracks others;
        begin(others);
        others.onSubtitlePacket(*packets[1]);
        return others.current()->all();
    }
    // The first packet ends in its midst.
    void readInPart() {
        AVPacket* part = av_packet_clone(packets[0]);
        part->size /= 2;
        tracks.onSubtitlePacket(*part);
        av_packet_free(&part);
    }
    void expectSecondAlone() {
        const auto read = tracks.current()->all();
        const auto wanted = secondAlone();
        ASSERT_EQ(wanted.size(), 1U);
        ASSERT_EQ(read.size(), 1U);
        EXPECT_EQ(*read[0], *wanted[0]);
    }

    AVFormatContext* input = nullptr;
    AVPacket* packets[2] = {};
    SubtitleTracks tracks;
};

TEST_F(ReadSubtitleTracks, KeepPicturesOverATurnAndNotOverAGap) {
    tracks.onSubtitlePacket(*packets[0]);
    tracks.onSubtitleTurn();
    EXPECT_EQ(tracks.current()->all().size(), 1U);
    tracks.onSubtitleGap();
    EXPECT_EQ(tracks.current()->all().size(), 0U);
}

TEST_F(ReadSubtitleTracks, PutNothingTogetherOverAGap) {
    readInPart();
    tracks.onSubtitleGap();
    tracks.onSubtitlePacket(*packets[1]);
    expectSecondAlone();
}

TEST_F(ReadSubtitleTracks, PutNothingTogetherOverATurn) {
    readInPart();
    tracks.onSubtitleTurn();
    tracks.onSubtitlePacket(*packets[1]);
    expectSecondAlone();
}

TEST_F(ReadSubtitleTracks, GoOnWithATrackThatIsReadAgain) {
    const auto track = tracks.current();
    tracks.onSubtitlePacket(*packets[0]);
    begin(tracks);
    EXPECT_EQ(tracks.current(), track);
    tracks.onSubtitlePacket(*packets[1]);
    EXPECT_EQ(track->all().size(), 2U);
}

TEST_F(ReadSubtitleTracks, ReadNothingWithoutADecoder) {
    const auto track = tracks.current();
    AVStream* const unknown = avformat_new_stream(input, nullptr);
    unknown->codecpar->codec_id = AV_CODEC_ID_H264;
    tracks.onSubtitleStream(*input, *unknown, 0);
    tracks.onSubtitleTurn();
    tracks.onSubtitleGap();
    tracks.onSubtitlePacket(*packets[0]);
    EXPECT_EQ(track->all().size(), 0U);
    tracks.choose(unknown->index);
    EXPECT_EQ(tracks.current(), nullptr);
}

TEST_F(ReadSubtitleTracks, LetTheirMemoryGoWhenTheyAreForgotten) {
    tracks.onSubtitlePacket(*packets[0]);
    const std::weak_ptr<const SubtitleTrack> known = tracks.current();
    EXPECT_FALSE(known.expired());
    tracks.forget();
    EXPECT_TRUE(known.expired());
}

}  // namespace
}  // namespace kelp::test
