#include "subtitle/picture_subtitles.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <memory>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace kelp::test {

namespace {

struct FreeContext {
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
};

std::vector<uint8_t> indicesOf(const PictureSubtitle& subtitle) {
    std::vector<uint8_t> indices;
    for (int y = 0; y < subtitle.height; ++y) {
        for (int x = 0; x < subtitle.width; ++x) {
            indices.push_back(x < subtitle.width / 2 ? 1 : 2);
        }
    }
    return indices;
}

// Without a picture where `isThere` doesn't hold: what was there is gone.
std::vector<uint8_t> encode(AVCodecContext& context, const PictureSubtitle& described, bool isThere) {
    auto indices = indicesOf(described);
    uint32_t palette[256] = {0, kLeftColor, kRightColor};
    AVSubtitleRect rect{};
    rect.type = SUBTITLE_BITMAP;
    rect.x = described.x;
    rect.y = described.y;
    rect.w = described.width;
    rect.h = described.height;
    rect.nb_colors = 4;
    rect.data[0] = indices.data();
    rect.data[1] = reinterpret_cast<uint8_t*>(palette);
    rect.linesize[0] = described.width;
    AVSubtitleRect* rects[] = {&rect};
    AVSubtitle subtitle{};
    subtitle.num_rects = isThere ? 1 : 0;
    subtitle.rects = rects;
    subtitle.pts = int64_t{1000} * described.startMs;
    subtitle.end_display_time = static_cast<uint32_t>(described.endMs - described.startMs);
    std::vector<uint8_t> bytes(1 << 20);
    const int size = avcodec_encode_subtitle(&context, bytes.data(), static_cast<int>(bytes.size()), &subtitle);
    EXPECT_GT(size, 0);
    bytes.resize(static_cast<size_t>(std::max(size, 0)));
    return bytes;
}

void write(AVFormatContext& output, std::vector<uint8_t> bytes, int64_t startMs, int64_t lastsMs) {
    AVPacket* packet = av_packet_alloc();
    ASSERT_GE(av_new_packet(packet, static_cast<int>(bytes.size())), 0);
    std::memcpy(packet->data, bytes.data(), bytes.size());
    packet->pts = packet->dts = startMs;
    packet->duration = lastsMs;
    packet->flags = AV_PKT_FLAG_KEY;
    av_packet_rescale_ts(packet, {1, 1000}, output.streams[0]->time_base);
    EXPECT_GE(av_interleaved_write_frame(&output, packet), 0);
    av_packet_free(&packet);
}

}  // namespace

void writePictureSubtitles(const std::string& path, AVCodecID codec, const std::vector<PictureSubtitle>& subtitles) {
    const AVCodec* const encoder = avcodec_find_encoder(codec);
    ASSERT_TRUE(encoder);
    const std::unique_ptr<AVCodecContext, FreeContext> context(avcodec_alloc_context3(encoder));
    context->time_base = {1, 1000};
    context->width = kPictureCanvasWidth;
    context->height = kPictureCanvasHeight;
    ASSERT_GE(avcodec_open2(context.get(), encoder, nullptr), 0);
    AVFormatContext* output = nullptr;
    ASSERT_GE(avformat_alloc_output_context2(&output, nullptr, "matroska", path.c_str()), 0);
    AVStream* const stream = avformat_new_stream(output, nullptr);
    ASSERT_GE(avcodec_parameters_from_context(stream->codecpar, context.get()), 0);
    if (codec == AV_CODEC_ID_DVB_SUBTITLE) {
        stream->codecpar->extradata = static_cast<uint8_t*>(av_mallocz(5 + AV_INPUT_BUFFER_PADDING_SIZE));
        stream->codecpar->extradata_size = 5;
        stream->codecpar->extradata[1] = stream->codecpar->extradata[3] = 1;  // the pages
    }
    stream->time_base = {1, 1000};
    ASSERT_GE(avio_open(&output->pb, path.c_str(), AVIO_FLAG_WRITE), 0);
    ASSERT_GE(avformat_write_header(output, nullptr), 0);
    for (const auto& subtitle : subtitles) {
        write(*output, encode(*context, subtitle, true), subtitle.startMs, subtitle.endMs - subtitle.startMs);
        if (codec == AV_CODEC_ID_DVB_SUBTITLE) {
            PictureSubtitle end = subtitle;
            end.startMs = subtitle.endMs;
            write(*output, encode(*context, end, false), subtitle.endMs, 1);
        }
    }
    av_write_trailer(output);
    avio_closep(&output->pb);
    avformat_free_context(output);
}

namespace {

// The bytes of a disc's stream, the highest of a number first.
class PgsWriter {
public:
    explicit PgsWriter(const std::string& path) : file_(path, std::ios::binary) {}

    void showAt(int timeMs, const PictureSubtitle* shown) {
        ++number_;
        Bytes composition;
        composition.add(kPictureCanvasWidth, 2).add(kPictureCanvasHeight, 2).add(0x10, 1).add(number_, 2);
        composition.add(shown ? 0x80 : 0, 1).add(0, 1).add(0, 1).add(shown ? 1 : 0, 1);
        if (shown) {
            composition.add(0, 2).add(0, 1).add(0, 1).add(shown->x, 2).add(shown->y, 2);
        }
        segment(0x16, timeMs, composition);
        Bytes window;
        window.add(1, 1).add(0, 1).add(shown ? shown->x : 0, 2).add(shown ? shown->y : 0, 2);
        window.add(shown ? shown->width : 8, 2).add(shown ? shown->height : 8, 2);
        segment(0x17, timeMs, window);
        if (shown) {
            // Red and blue as Y, Cr, Cb.
            Bytes palette;
            palette.add(0, 1).add(0, 1);
            palette.add(1, 1).add(81, 1).add(240, 1).add(90, 1).add(255, 1);
            palette.add(2, 1).add(41, 1).add(110, 1).add(240, 1).add(255, 1);
            segment(0x14, timeMs, palette);
            Bytes lines;
            for (const uint8_t index : indicesOf(*shown)) {
                lines.add(index, 1);  // a run of one
                if (++column_ == shown->width) {
                    lines.add(0, 2);
                    column_ = 0;
                }
            }
            Bytes object;
            object.add(0, 2).add(0, 1).add(0xC0, 1).add(static_cast<int>(lines.bytes.size()) + 4, 3);
            object.add(shown->width, 2).add(shown->height, 2);
            object.bytes += lines.bytes;
            segment(0x15, timeMs, object);
        }
        segment(0x80, timeMs, {});
    }

private:
    struct Bytes {
        std::string bytes;
        Bytes& add(int64_t value, int count) {
            while (count-- > 0) {
                bytes += static_cast<char>(value >> 8 * count & 0xFF);
            }
            return *this;
        }
    };

    void segment(int type, int timeMs, const Bytes& content) {
        Bytes all;
        all.add('P', 1).add('G', 1).add(int64_t{timeMs} * 90, 4).add(0, 4).add(type, 1);
        all.add(static_cast<int64_t>(content.bytes.size()), 2);
        file_ << all.bytes << content.bytes;
    }

    std::ofstream file_;
    int number_ = 0;
    int column_ = 0;
};

}  // namespace

void writePgsSubtitles(const std::string& path, const std::vector<PictureSubtitle>& subtitles) {
    PgsWriter writer(path);
    for (const auto& subtitle : subtitles) {
        writer.showAt(subtitle.startMs, &subtitle);
        writer.showAt(subtitle.endMs, nullptr);
    }
}

}  // namespace kelp::test
