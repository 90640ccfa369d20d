#include "output/media_reader.h"

#include <gtest/gtest.h>

#include <memory>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/imgutils.h>
}

namespace kelp::test {

namespace {

struct InputCloser {
    void operator()(AVFormatContext* context) const { avformat_close_input(&context); }
};
struct CodecFreer {
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
};
struct PacketFreer {
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
struct FrameFreer {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};

// Feeds one packet, or null at the end, and takes the pictures that come.
void decode(AVCodecContext* decoder, const AVPacket* packet, std::vector<std::string>& pictures) {
    avcodec_send_packet(decoder, packet);
    const std::unique_ptr<AVFrame, FrameFreer> frame(av_frame_alloc());
    while (avcodec_receive_frame(decoder, frame.get()) >= 0) {
        const auto format = static_cast<AVPixelFormat>(frame->format);
        std::string bytes(av_image_get_buffer_size(format, frame->width, frame->height, 1), '\0');
        av_image_copy_to_buffer(reinterpret_cast<uint8_t*>(bytes.data()), static_cast<int>(bytes.size()), frame->data,
                                frame->linesize, format, frame->width, frame->height, 1);
        pictures.push_back(std::move(bytes));
    }
}

}  // namespace

EncodedVideo readVideo(const std::string& url, const std::map<std::string, std::string>& options) {
    EncodedVideo video;
    AVDictionary* dictionary = nullptr;
    for (const auto& [key, value] : options) {
        av_dict_set(&dictionary, key.c_str(), value.c_str(), 0);
    }
    AVFormatContext* opened = nullptr;
    const int result = avformat_open_input(&opened, url.c_str(), nullptr, &dictionary);
    av_dict_free(&dictionary);
    if (result < 0) {
        return video;
    }
    const std::unique_ptr<AVFormatContext, InputCloser> context(opened);
    if (context->nb_streams == 0) {
        return video;
    }
    const AVStream& stream = *context->streams[0];
    video.opened = true;
    video.codecId = stream.codecpar->codec_id;
    video.timeBaseDen = stream.time_base.num == 1 ? stream.time_base.den : 0;

    const AVCodec* codec = avcodec_find_decoder(stream.codecpar->codec_id);
    const std::unique_ptr<AVCodecContext, CodecFreer> decoder(avcodec_alloc_context3(codec));
    avcodec_parameters_to_context(decoder.get(), stream.codecpar);
    decoder->thread_count = 1;
    if (!codec || avcodec_open2(decoder.get(), codec, nullptr) < 0) {
        return video;
    }
    const std::unique_ptr<AVPacket, PacketFreer> packet(av_packet_alloc());
    for (; av_read_frame(context.get(), packet.get()) >= 0; av_packet_unref(packet.get())) {
        if (packet->stream_index != 0) {
            continue;
        }
        EncodedFrame frame;
        frame.bytes = std::vector<unsigned char>(packet->data, packet->data + packet->size);
        frame.pts = packet->pts;
        frame.keyFrame = packet->flags & AV_PKT_FLAG_KEY;
        video.frames.push_back(std::move(frame));
        decode(decoder.get(), packet.get(), video.pictures);
    }
    decode(decoder.get(), nullptr, video.pictures);
    video.width = decoder->width;
    video.height = decoder->height;
    return video;
}

EncodedVideo encodeVideo(const std::string& arguments, int frames) {
    const TempFolder folder;
    const std::string path = folder.path("encoded");
    runFFmpeg("-f lavfi -i testsrc2=size=160x120:rate=25 -pix_fmt yuv420p -frames:v " + std::to_string(frames) + " " +
              arguments + " " + path);
    EncodedVideo video = readVideo(path);
    EXPECT_EQ(video.frames.size(), static_cast<size_t>(frames)) << arguments;
    return video;
}

std::shared_ptr<CodecInfo> makeCodecInfo(VideoCodecType type) {
    auto info = std::make_shared<CodecInfo>();
    info->videoCodecType = type;
    info->width = 160;
    info->height = 120;
    info->pixFormat = PIX_FMT_YUV420P;
    return info;
}

}  // namespace kelp::test
