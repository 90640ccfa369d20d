#include "input/demuxer_hooks.h"

namespace kelp::test {

DemuxerHooks& hooks() {
    static DemuxerHooks instance;
    return instance;
}

void resetHooks() {
    hooks() = DemuxerHooks();
}

}  // namespace kelp::test

using kelp::test::hooks;

extern "C" {

AVFormatContext* __wrap_avformat_alloc_context() {
    return hooks().allocContext ? hooks().allocContext() : __real_avformat_alloc_context();
}

int __wrap_avformat_open_input(AVFormatContext** context, const char* path, const AVInputFormat* format,
                               AVDictionary** options) {
    return hooks().openInput ? hooks().openInput(context, path, options)
                             : __real_avformat_open_input(context, path, format, options);
}

int __wrap_avformat_find_stream_info(AVFormatContext* context, AVDictionary** options) {
    return hooks().findStreamInfo ? hooks().findStreamInfo(context)
                                  : __real_avformat_find_stream_info(context, options);
}

int __wrap_av_read_frame(AVFormatContext* context, AVPacket* packet) {
    return hooks().readFrame ? hooks().readFrame(context, packet) : __real_av_read_frame(context, packet);
}

int __wrap_avformat_seek_file(AVFormatContext* context, int stream, int64_t minTs, int64_t ts, int64_t maxTs,
                              int flags) {
    return hooks().seekFile ? hooks().seekFile(context, stream, minTs, ts, maxTs, flags)
                            : __real_avformat_seek_file(context, stream, minTs, ts, maxTs, flags);
}

int __wrap_av_read_pause(AVFormatContext* context) {
    return hooks().readPause ? hooks().readPause(context) : __real_av_read_pause(context);
}

int __wrap_av_read_play(AVFormatContext* context) {
    return hooks().readPlay ? hooks().readPlay(context) : __real_av_read_play(context);
}

AVCodecContext* __wrap_avcodec_alloc_context3(const AVCodec* codec) {
    return hooks().allocCodecContext ? hooks().allocCodecContext() : __real_avcodec_alloc_context3(codec);
}

const AVCodec* __wrap_avcodec_find_decoder(AVCodecID id) {
    return hooks().findDecoder ? hooks().findDecoder(id) : __real_avcodec_find_decoder(id);
}

int __wrap_avcodec_open2(AVCodecContext* context, const AVCodec* codec, AVDictionary** options) {
    return hooks().openCodec ? hooks().openCodec(context) : __real_avcodec_open2(context, codec, options);
}

int __wrap_avcodec_parameters_to_context(AVCodecContext* context, const AVCodecParameters* parameters) {
    return hooks().parametersToContext ? hooks().parametersToContext(context, parameters)
                                       : __real_avcodec_parameters_to_context(context, parameters);
}

int __wrap_avcodec_parameters_copy(AVCodecParameters* target, const AVCodecParameters* source) {
    return hooks().parametersCopy ? hooks().parametersCopy(target, source)
                                  : __real_avcodec_parameters_copy(target, source);
}

AVRational __wrap_av_guess_frame_rate(AVFormatContext* context, AVStream* stream, AVFrame* frame) {
    return hooks().guessFrameRate ? hooks().guessFrameRate(stream) : __real_av_guess_frame_rate(context, stream, frame);
}

const AVBitStreamFilter* __wrap_av_bsf_get_by_name(const char* name) {
    return hooks().bsfByName ? hooks().bsfByName(name) : __real_av_bsf_get_by_name(name);
}

int __wrap_av_bsf_alloc(const AVBitStreamFilter* filter, AVBSFContext** context) {
    return hooks().bsfAlloc ? hooks().bsfAlloc(filter, context) : __real_av_bsf_alloc(filter, context);
}

int __wrap_av_bsf_init(AVBSFContext* context) {
    return hooks().bsfInit ? hooks().bsfInit(context) : __real_av_bsf_init(context);
}

int __wrap_av_bsf_send_packet(AVBSFContext* context, AVPacket* packet) {
    return hooks().bsfSend ? hooks().bsfSend(context, packet) : __real_av_bsf_send_packet(context, packet);
}

int __wrap_av_bsf_receive_packet(AVBSFContext* context, AVPacket* packet) {
    return hooks().bsfReceive ? hooks().bsfReceive(context, packet) : __real_av_bsf_receive_packet(context, packet);
}

}  // extern "C"
