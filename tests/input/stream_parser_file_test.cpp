#include <algorithm>
#include <cstring>
#include <map>
#include <string_view>

#include "input/input_files.h"
#include "input/stream_parser_fixture.h"

namespace kelp::test {
namespace {

// A packet as libavformat gives it.
struct ReferencePacket {
    int64_t pts;
    int64_t dts;
    int flags;
    std::vector<uint8_t> data;
};

// The packets of a file's first video and first audio stream, with the start of the file in ticks of each.
struct Reference {
    std::vector<ReferencePacket> video;
    std::vector<ReferencePacket> audio;
    int64_t videoStart = 0;
    int64_t audioStart = 0;
    AVRational videoTimeBase = {0, 1};
};

Reference readReference(const std::string& path) {
    Reference reference;
    AVFormatContext* context = nullptr;
    EXPECT_EQ(avformat_open_input(&context, path.c_str(), nullptr, nullptr), 0) << path;
    context->flags |= AVFMT_FLAG_GENPTS;
    EXPECT_GE(avformat_find_stream_info(context, nullptr), 0);
    const int64_t startUs = std::max<int64_t>(context->start_time, 0);
    std::map<int, std::vector<ReferencePacket>*> targets;
    for (unsigned int i = 0; i < context->nb_streams; ++i) {
        const AVStream* stream = context->streams[i];
        const bool isVideo = stream->codecpar->codec_type == AVMEDIA_TYPE_VIDEO;
        targets[static_cast<int>(i)] = isVideo ? &reference.video : &reference.audio;
        (isVideo ? reference.videoStart : reference.audioStart) =
            stream->time_base.den * startUs / stream->time_base.num / 1000000;
        if (isVideo) {
            reference.videoTimeBase = stream->time_base;
        }
    }
    AVPacket* packet = av_packet_alloc();
    while (av_read_frame(context, packet) >= 0) {
        targets.at(packet->stream_index)
            ->push_back({packet->pts, packet->dts, packet->flags,
                         std::vector<uint8_t>(packet->data, packet->data + packet->size)});
        av_packet_unref(packet);
    }
    av_packet_free(&packet);
    avformat_close_input(&context);
    return reference;
}

std::vector<uint8_t> bytesOf(const MediaPacket& packet) {
    return {packet.data, packet.data + packet.size};
}

class StreamParserFile : public StreamParserTest {
protected:
    // Reads `path` to its end, with queues that are always empty.
    void readToTheEnd(const std::string& path) {
        ASSERT_TRUE(parser->open(path, 0)) << path;
        ASSERT_TRUE(parser->start());
        ASSERT_TRUE(observer->waitFor("completed")) << path;
    }

    static bool beginsWithStartCode(const MediaPacket& packet) {
        return packet.size >= 4 &&
               (std::memcmp(packet.data, "\0\0\0\1", 4) == 0 || std::memcmp(packet.data, "\0\0\1", 3) == 0);
    }
};

TEST_F(StreamParserFile, HandsOnEveryPacketOfEveryFile) {
    for (const auto& file : inputFiles()) {
        const std::string path = inputFile(file.name);
        SCOPED_TRACE(path);
        const Reference reference = readReference(path);
        parser->close();
        observer->clearEvents();
        readToTheEnd(path);
        parser->stop();

        auto video = observer->videoPackets();
        if (!reference.video.empty()) {
            ASSERT_FALSE(video.empty());
            EXPECT_EQ(video.back()->data, nullptr);  // the end packet
            video.pop_back();
        }
        const bool isConverted = std::string_view(file.name).find("h264_aac.mp4") == 0 ||
                                 std::string_view(file.name).find(".mkv") != std::string_view::npos;
        ASSERT_EQ(video.size(), reference.video.size());
        for (size_t i = 0; i < video.size(); ++i) {
            const auto& expected = reference.video[i];
            EXPECT_EQ(video[i]->pts, expected.pts - reference.videoStart) << i;
            EXPECT_EQ(video[i]->keyFrame, (expected.flags & AV_PKT_FLAG_KEY) != 0) << i;
            EXPECT_EQ(video[i]->foundKeyFrame, i > 0);
            if (isConverted) {
                EXPECT_TRUE(beginsWithStartCode(*video[i])) << i;
            } else {
                EXPECT_EQ(bytesOf(*video[i]), expected.data) << i;
            }
        }
        const auto audio = observer->audioPackets();
        ASSERT_EQ(audio.size(), reference.audio.size());
        for (size_t i = 0; i < audio.size(); ++i) {
            const auto& expected = reference.audio[i];
            EXPECT_EQ(audio[i]->pts, expected.pts - reference.audioStart) << i;
            EXPECT_EQ(bytesOf(*audio[i]), expected.data) << i;
        }
    }
}

TEST_F(StreamParserFile, TellsTheEndOfTheSoundWhereAllCodecsAreWanted) {
    const std::string path = inputFile("h264_aac.mp4");
    readToTheEnd(path);
    EXPECT_NE(observer->audioPackets().back()->data, nullptr);
    parser->close();
    observer->clearEvents();
    parser->setPlaybackOptions({.allCodecs = true});
    readToTheEnd(path);
    EXPECT_EQ(observer->audioPackets().back()->data, nullptr);
    EXPECT_EQ(observer->audioPackets().back()->size, 0);
}

TEST_F(StreamParserFile, HandsACoverOnOnceAheadOfTheSound) {
    parser->setPlaybackOptions({.allCodecs = true});
    readToTheEnd(inputFile("cover.m4a"));
    const auto pictures = observer->videoPackets();
    ASSERT_EQ(pictures.size(), 2U);
    EXPECT_TRUE(pictures[0]->keyFrame);
    EXPECT_EQ(pictures[0]->pts, 0);
    const auto bytes = bytesOf(*pictures[0]);
    ASSERT_GT(bytes.size(), 100U);
    EXPECT_EQ(bytes[0], 0xFF);
    EXPECT_EQ(bytes[1], 0xD8) << "a JPEG";
    EXPECT_EQ(pictures[1]->data, nullptr) << "its end";
    const auto events = observer->events();
    EXPECT_EQ(events[0], "video 0 key");
    EXPECT_EQ(events[1], "end found");
    EXPECT_EQ(std::ranges::count(events, "end found"), 1);
}

TEST_F(StreamParserFile, KnowsTheCodecsOfEveryFile) {
    struct Expected {
        VideoCodecType video;
        AudioCodecType audio;
        int sampleFormat;
        int sampleRate;
        bool hasVideo;
        bool hasAudio;
    };
    const std::map<std::string, Expected> table = {
        {"h264_aac.mp4", {VIDEO_CODEC_H264, AUDIO_CODEC_AAC, 4, 44100, true, true}},
        {"h264_mp3.ts", {VIDEO_CODEC_H264, AUDIO_CODEC_MP3, 4, 44100, true, true}},
        {"mp3.ts", {VIDEO_CODEC_NONE, AUDIO_CODEC_MP3, 4, 44100, false, true}},
        {"hevc_vorbis.mkv", {VIDEO_CODEC_HEVC, AUDIO_CODEC_VORBIS, 4, 44100, true, true}},
        {"mpeg4_mp3.avi", {VIDEO_CODEC_MPEG4, AUDIO_CODEC_MP3, 4, 44100, true, true}},
        {"msmpeg4v2_alaw.avi", {VIDEO_CODEC_MSMPEG4V2, AUDIO_CODEC_PCM_ALAW, 1, 8000, true, true}},
        {"msmpeg4v3.avi", {VIDEO_CODEC_MSMPEG4V3, AUDIO_CODEC_NONE, -1, 0, true, false}},
        {"mjpeg.avi", {VIDEO_CODEC_MJPEG, AUDIO_CODEC_NONE, -1, 0, true, false}},
        {"h264_10bit.mkv", {VIDEO_CODEC_H264, AUDIO_CODEC_NONE, -1, 0, true, false}},
        {"alaw.wav", {VIDEO_CODEC_NONE, AUDIO_CODEC_PCM_ALAW, 1, 8000, false, true}},
        {"vorbis.ogg", {VIDEO_CODEC_NONE, AUDIO_CODEC_VORBIS, 4, 44100, false, true}},
        {"vp9_opus.webm", {VIDEO_CODEC_NONE, AUDIO_CODEC_NONE, 4, 48000, true, true}},
    };
    ASSERT_EQ(table.size(), inputFiles().size());
    for (const auto& [name, expected] : table) {
        SCOPED_TRACE(name);
        parser->close();
        ASSERT_TRUE(parser->open(inputFile(name), 0));
        const auto stream = parser->getStreamInfo();
        EXPECT_EQ(stream->has_video, expected.hasVideo);
        EXPECT_EQ(stream->has_audio, expected.hasAudio);
        EXPECT_TRUE(stream->seekable);
        const auto codec = parser->getCodecInfo();
        EXPECT_EQ(codec->videoCodecType, expected.video);
        EXPECT_EQ(codec->audioCodecType, expected.audio);
        EXPECT_EQ(codec->sampleFormat, expected.sampleFormat);
        EXPECT_EQ(codec->sampleRate, expected.sampleRate);
        EXPECT_EQ(codec->channels, expected.hasAudio ? 1 : 0);
        EXPECT_EQ(codec->width, expected.hasVideo ? 160 : 0);
        EXPECT_EQ(codec->height, expected.hasVideo ? 120 : 0);
        EXPECT_EQ(codec->frameRate, expected.hasVideo ? 25 : 0);
        const PixFormat format = name == "h264_10bit.mkv" ? PIX_FMT_YUV420P10
                                 : name == "mjpeg.avi"    ? PIX_FMT_NONE
                                 : expected.hasVideo      ? PIX_FMT_YUV420P
                                                          : PIX_FMT_NONE;
        EXPECT_EQ(codec->pixFormat, format);
        EXPECT_EQ(codec->videoParameters != nullptr, expected.hasVideo);
        EXPECT_EQ(codec->audioParameters != nullptr, expected.hasAudio);
    }
}

TEST_F(StreamParserFile, TellsTheLengthOfAFile) {
    ASSERT_TRUE(parser->open(inputFile("h264_aac.mp4"), 0));
    EXPECT_NEAR(static_cast<double>(parser->getStreamInfo()->duration), 3000, 30);
    parser->close();
    ASSERT_TRUE(parser->open(inputFile("h264_mp3.ts"), 0));
    EXPECT_GT(parser->getStreamInfo()->start_time, 0);
    EXPECT_NEAR(static_cast<double>(parser->getStreamInfo()->duration), 9000, 60);
}

TEST_F(StreamParserFile, ReportsTheTrueEnd) {
    readToTheEnd(inputFile("msmpeg4v2_alaw.avi"));
    const auto events = observer->events();
    const auto end = std::find_if(events.begin(), events.end(), [](auto& event) { return event.starts_with("file"); });
    ASSERT_NE(end, events.end());
    // Fifty frames of 40 ms; the last block of sound begins before two seconds.
    EXPECT_TRUE(end->starts_with("file end 1960 1")) << *end;
}

TEST_F(StreamParserFile, OpensAtAPosition) {
    ASSERT_TRUE(parser->open(inputFile("mpeg4_mp3.avi"), 1500));
    ASSERT_TRUE(parser->start());
    ASSERT_TRUE(observer->waitFor("completed"));
    // The key frame before the position is frame 25, or a later one if the index says so; not the first.
    const auto video = observer->videoPackets();
    ASSERT_GT(video.size(), 1U);
    EXPECT_GE(video.front()->pts, 25);
    EXPECT_TRUE(video.front()->keyFrame);
}

TEST_F(StreamParserFile, SeeksToTheKeyFrameBeforeThePosition) {
    readToTheEnd(inputFile("h264_aac.mp4"));
    const auto base = observer->videoPackets().front()->timeBaseDen;
    observer->clearEvents();
    parser->seek(1500);
    ASSERT_TRUE(observer->waitFor("completed"));
    const auto video = observer->videoPackets();
    ASSERT_FALSE(video.empty());
    EXPECT_TRUE(video.front()->keyFrame);
    EXPECT_FALSE(video.front()->foundKeyFrame);
    EXPECT_EQ(video.front()->pts, base);  // at one second
    EXPECT_EQ(video.size(), 51U);         // two seconds and the end packet

    // The last second isn't sought into.
    observer->clearEvents();
    parser->seek(2900);
    ASSERT_TRUE(observer->waitFor("completed"));
    EXPECT_EQ(observer->videoPackets().front()->pts, base * 2);
    EXPECT_EQ(observer->count("seek start 2900"), 1);
}

TEST_F(StreamParserFile, SeeksIntoTheLastPieceOfSound) {
    parser->setPlaybackOptions({.allCodecs = true});
    readToTheEnd(inputFile("alaw.wav"));  // in pieces of half a second
    observer->clearEvents();
    parser->seek(1953);
    EXPECT_TRUE(observer->waitFor("completed"));
    EXPECT_EQ(observer->count("seek start 1953"), 1);
}

TEST_F(StreamParserFile, ReadsAPhotographAgain) {
    parser->setPlaybackOptions({.allCodecs = true});
    readToTheEnd(inputFile("photo.jpg"));
    observer->clearEvents();
    parser->seek(3);
    EXPECT_TRUE(observer->waitFor("completed"));
    EXPECT_EQ(observer->videoPackets().size(), 2U) << "the picture, and the end";
}

TEST_F(StreamParserFile, SeeksMpegTsByTheMeasuredGap) {
    readToTheEnd(inputFile("h264_mp3.ts"));
    ASSERT_EQ(parser->getStreamInfo()->start_time, 1400);
    observer->clearEvents();
    log.clear();
    parser->seek(7000);
    ASSERT_TRUE(observer->waitFor("completed"));
    EXPECT_EQ(logLines("max key frame").at(0),
              "processSeekRequest, name:mpegts, seekPos:7000000, max key frame duration:2000\n");
    EXPECT_EQ(logLines("seekTarget").at(0), "processSeekRequest, seekPos:7000000, seekTarget:6400000\n");
    // It reads from a key frame at or before the position.
    const auto video = observer->videoPackets();
    ASSERT_FALSE(video.empty());
    EXPECT_LE(video.front()->pts, 7 * 90000);
    EXPECT_GT(video.front()->pts, 2 * 90000);
}

TEST_F(StreamParserFile, FailsOnWhatIsNoMedia) {
    const std::string path = scratchPath("text.mp4");
    writeBytes(path, std::vector<uint8_t>(5000, 'x'));
    EXPECT_FALSE(parser->open(path, 0));
    parser->close();
    writeBytes(path, {});
    EXPECT_FALSE(parser->open(path, 0));
    parser->close();
    EXPECT_FALSE(parser->open("", 0));
    parser->close();
    EXPECT_FALSE(parser->open("nosuchprotocol://x", 0));
    parser->close();
    EXPECT_FALSE(parser->open(KELP_INPUT_FILES_DIR, 0));
    std::remove(path.c_str());
    EXPECT_EQ(logLines("faield").size(), 5U);
}

}  // namespace
}  // namespace kelp::test
