// Streams of pictures that are larger than a host allows.

#include "input/picture_limit.h"

#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "input/input_files.h"
#include "input/stream_parser_fixture.h"

namespace kelp::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class PictureLimit : public StreamParserTest {
protected:
    static SyntheticStream videoOf(int width, int height) {
        SyntheticStream stream = videoStream();
        stream.width = width;
        stream.height = height;
        return stream;
    }

    bool openWith(PlaybackOptions options, std::vector<SyntheticStream> streams) {
        SyntheticInput input;
        input.streams = std::move(streams);
        parser->close();
        parser->setPlaybackOptions(options);
        log.clear();
        return open(input);
    }

    int playedVideo() {
        const auto info = parser->getStreamInfo();
        for (const auto& track : info->tracks) {
            if (track.isPlayed && track.kind == TRACK_KIND_VIDEO) {
                return track.number;
            }
        }
        return -1;
    }
};

TEST_F(PictureLimit, LeavesOutTheStreamsOfLargerPictures) {
    for (const bool allCodecs : {false, true}) {
        const PlaybackOptions options{.allCodecs = allCodecs, .maxPixels = 67108864};
        ASSERT_TRUE(openWith(options, {videoOf(16384, 8192), audioStream(), videoOf(640, 360)}));
        EXPECT_EQ(playedVideo(), 2);
        EXPECT_THAT(logLines(" is left out: "),
                    ElementsAre("stream 0 (h264) is left out: 16384x8192 is more than 67108864 pixels\n"));
        EXPECT_FALSE(parser->getStreamInfo()->tracks[0].isPlayable);
        EXPECT_EQ(parser->getStreamInfo()->tracks[0].kind, TRACK_KIND_VIDEO);
        EXPECT_TRUE(parser->getStreamInfo()->has_audio);
    }
}

TEST_F(PictureLimit, CountsPixelsAndNotSides) {
    EXPECT_TRUE(openWith({.maxPixels = 67108864}, {videoOf(8192, 8192)}));
    EXPECT_TRUE(openWith({.maxPixels = 67108864}, {videoOf(16384, 4096)}));
    EXPECT_FALSE(openWith({.maxPixels = 67108864}, {videoOf(8192, 8193)}));
    EXPECT_TRUE(openWith({}, {videoOf(32000, 32000)}));
    EXPECT_THAT(logLines(" is left out: "), IsEmpty());
}

TEST_F(PictureLimit, FailsWhereNothingElseIsLeft) {
    EXPECT_FALSE(openWith({.maxPixels = 100}, {videoOf(20, 20)}));
    EXPECT_THAT(logLines("can't be played"), IsEmpty());
    EXPECT_FALSE(openWith({.allCodecs = true, .maxPixels = 100}, {videoOf(20, 20)}));
    EXPECT_THAT(logLines("can't be played"),
                ElementsAre(testing::EndsWith(" can't be played: its pictures are larger than is allowed\n")));
    // Sound alone is something.
    EXPECT_TRUE(openWith({.maxPixels = 100}, {videoOf(20, 20), audioStream()}));
}

TEST_F(PictureLimit, TakesNoLargerTrackThatIsAskedFor) {
    ASSERT_TRUE(openWith({.maxPixels = 307200, .videoTrack = 1}, {videoOf(320, 240), videoOf(1280, 720)}));
    EXPECT_EQ(playedVideo(), 0);
    EXPECT_EQ(logLines("none that can be played").size(), 1U);
}

// With the library's own probing, whose decoder meets the same limit.
TEST_F(PictureLimit, HoldsForAFileThatIsProbed) {
    parser->setPlaybackOptions({.maxPixels = 10000});
    ASSERT_TRUE(parser->open(inputFile("tracks.mkv"), 0));
    EXPECT_EQ(playedVideo(), -1);
    EXPECT_EQ(logLines("160x120 is more than 10000 pixels").size(), 2U);
    EXPECT_TRUE(parser->getStreamInfo()->has_audio);
}

TEST(ProbeOptions, TellEachStreamsDecoderOfTheLimit) {
    AVFormatContext* const input = avformat_alloc_context();
    avformat_new_stream(input, nullptr);
    avformat_new_stream(input, nullptr);
    EXPECT_EQ(av_dict_get(ProbeOptions(*input, 0).get()[0], "max_pixels", nullptr, 0), nullptr);
    ProbeOptions limited(*input, 5000);
    ProbeOptions huge(*input, INT64_MAX);
    for (int i = 0; i < 2; ++i) {
        EXPECT_STREQ(av_dict_get(limited.get()[i], "max_pixels", nullptr, 0)->value, "5000");
        EXPECT_STREQ(av_dict_get(huge.get()[i], "max_pixels", nullptr, 0)->value, "2147483647");
    }
    avformat_free_context(input);
}

// What a probe finds of an input: every field that the parser or a decoder may look at.
std::vector<std::string> probe(const std::string& path, bool isQuick) {
    AVFormatContext* input = nullptr;
    EXPECT_GE(avformat_open_input(&input, path.c_str(), nullptr, nullptr), 0) << path;
    {
        ProbeOptions options(*input, 0);
        EXPECT_GE(avformat_find_stream_info(input, isQuick ? options.get() : nullptr), 0) << path;
    }
    std::vector<std::string> found{testing::PrintToString(std::tuple(input->start_time, input->duration))};
    for (unsigned int i = 0; i < input->nb_streams; ++i) {
        const AVStream& stream = *input->streams[i];
        const AVCodecParameters& is = *stream.codecpar;
        const auto ratio = [](AVRational of) { return std::pair(of.num, of.den); };
        found.push_back(testing::PrintToString(std::tuple(
            std::tuple(is.codec_type, is.codec_id, is.codec_tag, is.format, is.bit_rate, is.bits_per_coded_sample,
                       is.bits_per_raw_sample, is.profile, is.level, is.width, is.height),
            std::tuple(is.field_order, is.color_range, is.color_primaries, is.color_trc, is.color_space,
                       is.chroma_location, is.video_delay, ratio(is.sample_aspect_ratio)),
            std::tuple(is.sample_rate, is.frame_size, is.initial_padding, is.block_align, is.seek_preroll),
            std::tuple(ratio(stream.r_frame_rate), ratio(stream.avg_frame_rate), ratio(stream.time_base),
                       ratio(stream.sample_aspect_ratio), stream.start_time, stream.duration, stream.nb_frames,
                       stream.disposition),
            std::string(reinterpret_cast<const char*>(is.extradata), static_cast<size_t>(is.extradata_size)))));
    }
    avformat_close_input(&input);
    return found;
}

TEST(ProbeOptions, FindTheSameAsWithoutThem) {
    for (const auto& file : inputFiles()) {
        EXPECT_EQ(probe(inputFile(file.name), true), probe(inputFile(file.name), false)) << file.name;
    }
}

TEST(ProbeOptions, SmoothNoPictures) {
    AVFormatContext* const input = avformat_alloc_context();
    avformat_new_stream(input, nullptr)->codecpar->codec_type = AVMEDIA_TYPE_VIDEO;
    avformat_new_stream(input, nullptr)->codecpar->codec_type = AVMEDIA_TYPE_AUDIO;
    ProbeOptions options(*input, 0);
    EXPECT_STREQ(av_dict_get(options.get()[0], "skip_loop_filter", nullptr, 0)->value, "all");
    EXPECT_EQ(options.get()[1], nullptr);
    avformat_free_context(input);
}

}  // namespace
}  // namespace kelp::test
