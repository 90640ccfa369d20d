#include "decode/video_library_fakes.h"

#include <algorithm>

extern "C" const AVCodec* __real_avcodec_find_decoder(AVCodecID id);

namespace kelp::test {

int VideoLibraryFakes::callCount(const std::string& call) const {
    return static_cast<int>(std::count(calls.begin(), calls.end(), call));
}

VideoLibraryFakes& videoFakes() {
    static VideoLibraryFakes fakes;
    return fakes;
}

const AVCodec* realDecoder(AVCodecID id) {
    return __real_avcodec_find_decoder(id);
}

}  // namespace kelp::test

using kelp::test::videoFakes;

extern "C" {

const AVCodec* __real_avcodec_find_decoder_by_name(const char* name);
const AVCodec* __wrap_avcodec_find_decoder_by_name(const char* name) {
    auto& fakes = videoFakes();
    fakes.calls.push_back(std::string("find ") + name);
    return fakes.findByName ? fakes.findByName(name) : __real_avcodec_find_decoder_by_name(name);
}

const AVCodec* __wrap_avcodec_find_decoder(AVCodecID id) {
    auto& fakes = videoFakes();
    fakes.calls.push_back("find " + std::to_string(id));
    return fakes.findDecoder ? fakes.findDecoder(id) : __real_avcodec_find_decoder(id);
}

AVCodecContext* __real_avcodec_alloc_context3(const AVCodec* codec);
AVCodecContext* __wrap_avcodec_alloc_context3(const AVCodec* codec) {
    auto& fakes = videoFakes();
    if (fakes.refuseContext && fakes.refuseContext()) {
        return nullptr;
    }
    AVCodecContext* context = __real_avcodec_alloc_context3(codec);
    fakes.liveContexts += context != nullptr;
    return context;
}

void __real_avcodec_free_context(AVCodecContext** context);
void __wrap_avcodec_free_context(AVCodecContext** context) {
    videoFakes().liveContexts -= *context != nullptr;
    __real_avcodec_free_context(context);
}

int __real_avcodec_open2(AVCodecContext* context, const AVCodec* codec, AVDictionary** options);
int __wrap_avcodec_open2(AVCodecContext* context, const AVCodec* codec, AVDictionary** options) {
    auto& fakes = videoFakes();
    fakes.calls.push_back(std::string("open ") + codec->name);
    fakes.opened.push_back({codec->name, context, context->thread_count, context->thread_type, context->flags,
                            context->idct_algo, context->pix_fmt, context->width, context->height,
                            context->extradata_size, context->hw_device_ctx != nullptr, context->opaque != nullptr,
                            context->get_format == avcodec_default_get_format, 0});
    const int refused = fakes.openError ? fakes.openError() : 0;
    const int result = refused < 0 ? refused : __real_avcodec_open2(context, codec, options);
    fakes.opened.back().result = result;
    return result;
}

AVHWDeviceType __real_av_hwdevice_find_type_by_name(const char* name);
AVHWDeviceType __wrap_av_hwdevice_find_type_by_name(const char* name) {
    auto& fakes = videoFakes();
    fakes.calls.push_back(std::string("type ") + name);
    return fakes.findDeviceType ? fakes.findDeviceType(name) : __real_av_hwdevice_find_type_by_name(name);
}

const AVCodecHWConfig* __real_avcodec_get_hw_config(const AVCodec* codec, int index);
const AVCodecHWConfig* __wrap_avcodec_get_hw_config(const AVCodec* codec, int index) {
    auto& fakes = videoFakes();
    return fakes.hwConfig ? fakes.hwConfig(index) : __real_avcodec_get_hw_config(codec, index);
}

int __real_av_hwdevice_ctx_create(AVBufferRef** device, AVHWDeviceType type, const char* name, AVDictionary* options,
                                  int flags);
int __wrap_av_hwdevice_ctx_create(AVBufferRef** device, AVHWDeviceType type, const char* name, AVDictionary* options,
                                  int flags) {
    auto& fakes = videoFakes();
    fakes.calls.push_back(std::string("device ") + av_hwdevice_get_type_name(type) +
                          (name || options || flags ? "!" : ""));
    return fakes.createDevice ? fakes.createDevice(device, type)
                              : __real_av_hwdevice_ctx_create(device, type, name, options, flags);
}

int __real_av_hwframe_transfer_data(AVFrame* target, const AVFrame* source, int flags);
int __wrap_av_hwframe_transfer_data(AVFrame* target, const AVFrame* source, int flags) {
    auto& fakes = videoFakes();
    ++fakes.transfers;
    return fakes.transfer ? fakes.transfer(target, source) : __real_av_hwframe_transfer_data(target, source, flags);
}

AVFrame* __real_av_frame_alloc();
AVFrame* __wrap_av_frame_alloc() {
    auto& fakes = videoFakes();
    return fakes.refuseFrame && fakes.refuseFrame() ? nullptr : __real_av_frame_alloc();
}

int __real_avcodec_send_packet(AVCodecContext* context, const AVPacket* packet);
int __wrap_avcodec_send_packet(AVCodecContext* context, const AVPacket* packet) {
    auto& fakes = videoFakes();
    if (packet) {
        fakes.sent.push_back({false, std::vector<uint8_t>(packet->data, packet->data + packet->size), packet->pts,
                              packet->dts, packet->duration, packet->pos, packet->flags, packet->buf != nullptr});
    } else {
        fakes.sent.push_back({true, {}, 0, 0, 0, 0, 0, false});
    }
    return fakes.send ? fakes.send(packet) : __real_avcodec_send_packet(context, packet);
}

int __real_avcodec_receive_frame(AVCodecContext* context, AVFrame* frame);
int __wrap_avcodec_receive_frame(AVCodecContext* context, AVFrame* frame) {
    auto& fakes = videoFakes();
    if (!fakes.queuePictures) {
        const int result = __real_avcodec_receive_frame(context, frame);
        fakes.received += result >= 0;
        return result;
    }
    av_frame_unref(frame);
    if (fakes.pictures.empty()) {
        return AVERROR(EAGAIN);
    }
    av_frame_move_ref(frame, fakes.pictures.front().get());
    fakes.pictures.pop_front();
    return 0;
}

void __real_avcodec_flush_buffers(AVCodecContext* context);
void __wrap_avcodec_flush_buffers(AVCodecContext* context) {
    videoFakes().calls.push_back("flush");
    __real_avcodec_flush_buffers(context);
}

SwsContext* __real_sws_getCachedContext(SwsContext* context, int srcW, int srcH, AVPixelFormat srcFormat, int dstW,
                                        int dstH, AVPixelFormat dstFormat, int flags, SwsFilter* srcFilter,
                                        SwsFilter* dstFilter, const double* param);
SwsContext* __wrap_sws_getCachedContext(SwsContext* context, int srcW, int srcH, AVPixelFormat srcFormat, int dstW,
                                        int dstH, AVPixelFormat dstFormat, int flags, SwsFilter* srcFilter,
                                        SwsFilter* dstFilter, const double* param) {
    auto& fakes = videoFakes();
    // Only what every conversion has in common is left out of the record.
    if (srcW == dstW && srcH == dstH && dstFormat == AV_PIX_FMT_YUV420P && flags == SWS_BICUBIC && !srcFilter &&
        !dstFilter && !param) {
        fakes.conversions.push_back({srcW, srcH, srcFormat});
    }
    if (fakes.refuseScaler && fakes.refuseScaler()) {
        sws_freeContext(context);
        return nullptr;
    }
    return __real_sws_getCachedContext(context, srcW, srcH, srcFormat, dstW, dstH, dstFormat, flags, srcFilter,
                                       dstFilter, param);
}

}  // extern "C"
