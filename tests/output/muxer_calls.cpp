#include "output/muxer_calls.h"

extern "C" {
#include <libavformat/avformat.h>
}

namespace kelp::test {

MuxerCalls& muxerCalls() {
    static MuxerCalls calls;
    return calls;
}

void resetMuxerCalls() {
    muxerCalls() = {};
}

namespace {

// Notes the call; whether it is to fail.
bool fails(const char* name) {
    muxerCalls().names.emplace_back(name);
    return muxerCalls().failing.count(name) > 0;
}

}  // namespace
}  // namespace kelp::test

using kelp::test::fails;
using kelp::test::muxerCalls;

extern "C" {

int __real_avformat_alloc_output_context2(AVFormatContext** context, const AVOutputFormat* format, const char* name,
                                          const char* path);
int __wrap_avformat_alloc_output_context2(AVFormatContext** context, const AVOutputFormat* format, const char* name,
                                          const char* path) {
    muxerCalls().muxer = name;
    muxerCalls().path = path;
    if (fails("avformat_alloc_output_context2")) {
        *context = nullptr;
        return AVERROR(ENOMEM);
    }
    return __real_avformat_alloc_output_context2(context, format, name, path);
}

AVStream* __real_avformat_new_stream(AVFormatContext* context, const AVCodec* codec);
AVStream* __wrap_avformat_new_stream(AVFormatContext* context, const AVCodec* codec) {
    return fails("avformat_new_stream") ? nullptr : __real_avformat_new_stream(context, codec);
}

int __real_avio_open(AVIOContext** io, const char* path, int flags);
int __wrap_avio_open(AVIOContext** io, const char* path, int flags) {
    muxerCalls().avioPath = path;
    return fails("avio_open") || flags != AVIO_FLAG_WRITE ? AVERROR(EIO) : __real_avio_open(io, path, flags);
}

int __real_avformat_write_header(AVFormatContext* context, AVDictionary** options);
int __wrap_avformat_write_header(AVFormatContext* context, AVDictionary** options) {
    const AVStream& stream = *context->streams[0];
    const AVCodecParameters& parameters = *stream.codecpar;
    muxerCalls().stream = {parameters.codec_type, parameters.codec_id, parameters.width,
                           parameters.height,     parameters.format,   parameters.extradata_size,
                           stream.time_base.num,  stream.time_base.den};
    const AVDictionaryEntry* entry = nullptr;
    while ((entry = av_dict_get(*options, "", entry, AV_DICT_IGNORE_SUFFIX))) {
        muxerCalls().options[entry->key] = entry->value;
    }
    return fails("avformat_write_header") ? AVERROR(EIO) : __real_avformat_write_header(context, options);
}

int __real_av_interleaved_write_frame(AVFormatContext* context, AVPacket* packet);
int __wrap_av_interleaved_write_frame(AVFormatContext* context, AVPacket* packet) {
    muxerCalls().packets.push_back({packet->pts, packet->dts, packet->data, packet->size, packet->stream_index,
                                    packet->flags, packet->duration, packet->pos, packet->time_base.num,
                                    packet->time_base.den, packet->buf != nullptr});
    return fails("av_interleaved_write_frame") ? AVERROR(EIO) : __real_av_interleaved_write_frame(context, packet);
}

int __real_av_write_trailer(AVFormatContext* context);
int __wrap_av_write_trailer(AVFormatContext* context) {
    return fails("av_write_trailer") ? AVERROR(EIO) : __real_av_write_trailer(context);
}

int __real_avio_close(AVIOContext* io);
int __wrap_avio_close(AVIOContext* io) {
    return fails("avio_close") ? AVERROR(EIO) : __real_avio_close(io);
}
}
