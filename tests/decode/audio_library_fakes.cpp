#include "decode/audio_library_fakes.h"

#include <algorithm>

namespace kelp::test {

int AudioLibraryFakes::codecCallCount(const std::string& name) const {
    return static_cast<int>(std::count(codecCalls.begin(), codecCalls.end(), name));
}

AudioLibraryFakes& audioFakes() {
    static AudioLibraryFakes fakes;
    return fakes;
}

}  // namespace kelp::test

using kelp::test::audioFakes;

extern "C" {

const AVCodec* __real_avcodec_find_decoder(AVCodecID id);
AVCodecContext* __real_avcodec_alloc_context3(const AVCodec* codec);
int __real_avcodec_parameters_to_context(AVCodecContext* context, const AVCodecParameters* parameters);
int __real_avcodec_open2(AVCodecContext* context, const AVCodec* codec, AVDictionary** options);
void __real_avcodec_free_context(AVCodecContext** context);
void __real_avcodec_flush_buffers(AVCodecContext* context);
AVFrame* __real_av_frame_alloc();
int __real_avcodec_receive_frame(AVCodecContext* context, AVFrame* frame);
int __real_avcodec_send_packet(AVCodecContext* context, const AVPacket* packet);
int __real_swr_alloc_set_opts2(SwrContext** context, AVChannelLayout* outLayout, AVSampleFormat outFormat, int outRate,
                               AVChannelLayout* inLayout, AVSampleFormat inFormat, int inRate, int logOffset,
                               void* logContext);
int __real_swr_init(SwrContext* context);
void __real_swr_free(SwrContext** context);
int __real_swr_set_compensation(SwrContext* context, int sampleDelta, int distance);
int __real_swr_convert(SwrContext* context, uint8_t** out, int outCount, const uint8_t** in, int inCount);

const AVCodec* __wrap_avcodec_find_decoder(AVCodecID id) {
    audioFakes().codecCalls.emplace_back("find_decoder");
    return audioFakes().findDecoder ? audioFakes().findDecoder(id) : __real_avcodec_find_decoder(id);
}

AVCodecContext* __wrap_avcodec_alloc_context3(const AVCodec* codec) {
    audioFakes().codecCalls.emplace_back("alloc_context");
    AVCodecContext* context =
        audioFakes().allocContext ? audioFakes().allocContext() : __real_avcodec_alloc_context3(codec);
    audioFakes().liveContexts += context != nullptr;
    return context;
}

int __wrap_avcodec_parameters_to_context(AVCodecContext* context, const AVCodecParameters* parameters) {
    audioFakes().codecCalls.emplace_back("parameters_to_context");
    const int result = __real_avcodec_parameters_to_context(context, parameters);
    return audioFakes().parametersToContext ? audioFakes().parametersToContext() : result;
}

int __wrap_avcodec_open2(AVCodecContext* context, const AVCodec* codec, AVDictionary** options) {
    audioFakes().codecCalls.emplace_back("open");
    return audioFakes().openCodec ? audioFakes().openCodec() : __real_avcodec_open2(context, codec, options);
}

void __wrap_avcodec_free_context(AVCodecContext** context) {
    audioFakes().liveContexts -= *context != nullptr;
    __real_avcodec_free_context(context);
}

void __wrap_avcodec_flush_buffers(AVCodecContext* context) {
    audioFakes().codecCalls.emplace_back("flush_buffers");
    __real_avcodec_flush_buffers(context);
}

AVFrame* __wrap_av_frame_alloc() {
    return audioFakes().allocFrame ? audioFakes().allocFrame() : __real_av_frame_alloc();
}

int __wrap_avcodec_receive_frame(AVCodecContext* context, AVFrame* frame) {
    audioFakes().codecCalls.emplace_back("receive_frame");
    return audioFakes().receiveFrame ? audioFakes().receiveFrame(frame) : __real_avcodec_receive_frame(context, frame);
}

int __wrap_avcodec_send_packet(AVCodecContext* context, const AVPacket* packet) {
    audioFakes().codecCalls.emplace_back("send_packet");
    return audioFakes().sendPacket ? audioFakes().sendPacket(packet) : __real_avcodec_send_packet(context, packet);
}

int __wrap_swr_alloc_set_opts2(SwrContext** context, AVChannelLayout* outLayout, AVSampleFormat outFormat, int outRate,
                               AVChannelLayout* inLayout, AVSampleFormat inFormat, int inRate, int logOffset,
                               void* logContext) {
    audioFakes().resamplers.push_back(
        {inLayout->nb_channels, inRate, inFormat, outLayout->nb_channels, outRate, outFormat});
    const int result = __real_swr_alloc_set_opts2(context, outLayout, outFormat, outRate, inLayout, inFormat, inRate,
                                                  logOffset, logContext);
    audioFakes().liveResamplers += *context != nullptr;
    return result;
}

int __wrap_swr_init(SwrContext* context) {
    ++audioFakes().resamplerInits;
    return audioFakes().initResampler ? audioFakes().initResampler() : __real_swr_init(context);
}

void __wrap_swr_free(SwrContext** context) {
    audioFakes().liveResamplers -= *context != nullptr;
    __real_swr_free(context);
}

int __wrap_swr_set_compensation(SwrContext* context, int sampleDelta, int distance) {
    audioFakes().compensations.push_back({sampleDelta, distance});
    return audioFakes().setCompensation ? audioFakes().setCompensation(sampleDelta, distance)
                                        : __real_swr_set_compensation(context, sampleDelta, distance);
}

int __wrap_swr_convert(SwrContext* context, uint8_t** out, int outCount, const uint8_t** in, int inCount) {
    const int set = static_cast<int>(std::count_if(out, out + 32, [](const uint8_t* p) { return p != nullptr; }));
    const int result = audioFakes().convert ? audioFakes().convert(out, outCount)
                                            : __real_swr_convert(context, out, outCount, in, inCount);
    audioFakes().conversions.push_back({outCount, inCount, result, out[0], set});
    return result;
}

}  // extern "C"
