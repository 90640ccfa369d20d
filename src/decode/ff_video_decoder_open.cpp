#include <algorithm>
#include <memory>
#include <utility>

#include "decode/ff_video_decoder.h"
#include "decode/unreferenced_picture.h"
#include "input/codec_tables.h"
#include "kelp_player/log.h"
#include "runtime/ffmpeg_compat.h"

extern "C" {
#include <libavutil/hwcontext.h>
#include <libavutil/pixdesc.h>
}

// How the decoder opens: the choice among hardware decoders, acceleration and software.
namespace kelp {

namespace {

constexpr char kTag[] = "FFVideoDecoder";

struct FreeContext {
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
};

const char* orNull(const char* text) {
    return text ? text : "null";
}

template <class Row>
const Row* findRow(const Row* from, AVCodecID id) {
    while (from->id != AV_CODEC_ID_NONE && from->id != id) {
        ++from;
    }
    return from->id != AV_CODEC_ID_NONE ? from : nullptr;
}

}  // namespace

bool FFVideoDecoder::enableHardware(bool enable, HwDecodeMode mode) {
    hwEnabled_ = enable;
    hwDecodeMode_ = mode;
    return true;
}

bool FFVideoDecoder::open(VideoCodecType codecType, const void* codecParameters, PixFormat pixFormat, bool isLive,
                          std::shared_ptr<VideoDecoderObserver> observer) {
    Log::Info(kTag, "%s, codecType:%d\n", "open", codecType);
    observer_ = std::move(observer);
    if (!openCodec(codecType, static_cast<const AVCodecParameters*>(codecParameters), pixFormat, isLive)) {
        // Nobody closes what didn't open, and the observer owns this object.
        releaseCodec();
        observer_.reset();
        return false;
    }
    Log::Info(kTag, "%s succeed, codecType:%d\n", "open", codecType);
    return true;
}

bool FFVideoDecoder::openCodec(VideoCodecType codecType, const AVCodecParameters* parameters, PixFormat pixFormat,
                               bool isLive) {
    const auto codecId = static_cast<AVCodecID>(codecIdFromType(codecType, parameters));
    if (codecId == AV_CODEC_ID_NONE) {
        Log::Error(kTag, "%s, unknown codec type:%d\n", "open", codecType);
        return false;
    }
    const auto format = static_cast<AVPixelFormat>(avPixelFormatFromPixFormat(pixFormat));
    Log::Info(kTag, "%s, pix fmt: %d %s\n", "open", format, orNull(av_get_pix_fmt_name(format)));

    const AVCodec* decoder = findHardwareDecoder(codecId, format);
    const bool software = !decoder;
    if (software) {
        Log::Info(kTag, "%s, use sw codec...\n", "open");
        decoder = avcodec_find_decoder(codecId);
        if (!decoder) {
            Log::Error(kTag, "%s, could not find video codec, type:%d, ffcodecId:%d\n", "open", codecType, codecId);
            return false;
        }
    }

    // A hardware decoder has so many buffers and no more.
    sharesPictures_ = options_.sharedPictures && software;

    codecContext_ = avcodec_alloc_context3(decoder);
    if (!codecContext_) {
        Log::Error(kTag, "%s, could not alloc codec context, type:%d, ffcodecId:%d\n", "open", codecType, codecId);
        return false;
    }
    if (parameters) {
        codecContext_->width = parameters->width;
        codecContext_->height = parameters->height;
        avcodec_parameters_to_context(codecContext_, parameters);
        pixelRatio_ = PixelRatio(parameters->sample_aspect_ratio);
        converter_->setParameters(*parameters);
        if (const int32_t* matrix = compat::displayMatrix(parameters)) {
            setRotation(matrix, "open, theta 1:%f\n", "open, theta 2:%f\n");
        }
    }
    if (codecType != VIDEO_CODEC_OTHER) {
        codecContext_->pix_fmt = format;  // another codec's is what the parameters say: few have a number here
    }
    codecContext_->idct_algo = 0;
    delay_ = &DecoderDelay::of(isLive, options_);
    limitPictures(*codecContext_);
    if (software) {
        delay_->setUp(*codecContext_);
        if (hwEnabled_) {
            accelerate(decoder, codecId);
        }
    }

    const bool hasHardware = !software || hwDeviceContext_;
    isHardware_ = hasHardware;  // until the codec finds no surfaces
    const int ret = avcodec_open2(codecContext_, decoder, nullptr);
    if (ret < 0) {
        char text[255] = {};
        av_strerror(ret, text, sizeof(text));
        Log::Error(kTag, "%s, count not open video codec, type:%d, ffcodecId:%d, ret:%d, %s\n", "open", codecType,
                   codecId, ret, text);
        return false;
    }
    canDiscard_ = !hasHardware && marksUnreferenced(*codecContext_);
    frame_ = av_frame_alloc();
    transferFrame_ = av_frame_alloc();
    if (!frame_ || !transferFrame_) {
        Log::Error(kTag, "%s, count not alloc output frame\n", "open");
        return false;
    }
    return true;
}

const char* FFVideoDecoder::name() const {
    return codecContext_ && codecContext_->codec ? codecContext_->codec->name : "";
}

// Pictures of the size that the stream states were let in. The library counts rows that are as long as a decoder's, of
// 64 pixels or a multiple.
void FFVideoDecoder::limitPictures(AVCodecContext& context) const {
    if (options_.maxPixels > 0) {
        const int64_t stated = int64_t{FFALIGN(context.width, 64)} * FFALIGN(context.height, 64);
        context.max_pixels = std::max(options_.maxPixels, stated);
    }
}

const HWDecoderInfo* FFVideoDecoder::getHWDecoderInfo(const HWDecoderInfo* from, AVCodecID id) {
    return hwEnabled_ && (hwDecodeMode_ & HW_DECODE_DECODER) ? findRow(from, id) : nullptr;
}

const HWAccelInfo* FFVideoDecoder::getHWAccelInfo(const HWAccelInfo* from, AVCodecID id) {
    return hwEnabled_ && (hwDecodeMode_ & HW_DECODE_ACCEL) ? findRow(from, id) : nullptr;
}

const AVCodec* FFVideoDecoder::findHardwareDecoder(AVCodecID codecId, AVPixelFormat format) {
    const HWDecoderInfo* info = kHWDecoders;
    for (; (info = getHWDecoderInfo(info, codecId)); ++info) {
        Log::Debug(kTag, "%s, getHWDecoderInfo, info.id:%d, name:%s\n", "open", info->id, info->name);
        if (!*info->name) {
            continue;
        }
        const AVCodec* decoder = avcodec_find_decoder_by_name(info->name);
        if (!decoder) {
            Log::Error(kTag, "%s, could not find video codec, name:%s\n", "open", info->name);
            continue;
        }
        Log::Info(kTag, "%s, found video codec by name:%s: (%d, %s, %s)\n", "open", info->name, decoder->id,
                  decoder->name, orNull(decoder->long_name));
        Log::Debug(kTag, "%s, try to open hw codec, ffPixFmt:%d...\n", "open", format);

        // A broken driver shows itself on a context that nothing depends on.
        std::unique_ptr<AVCodecContext, FreeContext> trial(avcodec_alloc_context3(decoder));
        if (!trial) {
            Log::Error(kTag, "%s, try to open hw codec, alloc ctx failed\n", "open");
            return nullptr;
        }
        trial->pix_fmt = format;
        const int ret = avcodec_open2(trial.get(), decoder, nullptr);
        trial.reset();
        if (ret < 0) {
            continue;
        }
        Log::Info(kTag, "%s, open hw codec %s succeed\n", "open", info->name);
        return decoder;
    }
    Log::Warn(kTag, "%s, have no hw decoder for %d\n", "open", codecId);
    return nullptr;
}

void FFVideoDecoder::accelerate(const AVCodec* decoder, AVCodecID codecId) {
    const HWAccelInfo* info = kHWAccels;
    for (; (info = getHWAccelInfo(info, codecId)); ++info) {
        if (!*info->name) {
            Log::Error(kTag, "%s, empty device name\n", "open");
            continue;
        }
        if (attachDevice(decoder, *info)) {
            codecContext_->opaque = this;
            codecContext_->get_format = getHwFormat;
            Log::Info(kTag, "%s, open hw accel %s (%s) succeed!\n", "open", info->name, info->desc);
            return;
        }
    }
    Log::Warn(kTag, "%s, have no hw accel for %d\n", "open", codecId);
}

bool FFVideoDecoder::attachDevice(const AVCodec* decoder, const HWAccelInfo& info) {
    Log::Info(kTag, "%s, try hw accel, name:%s, desc:%s\n", "open", info.name, info.desc);
    const AVHWDeviceType type = av_hwdevice_find_type_by_name(info.name);
    if (type == AV_HWDEVICE_TYPE_NONE) {
        Log::Error(kTag, "%s, Device type %s is not supported.\n", "open", info.name);
        Log::Debug(kTag, "%s, Available device types:\n", "open");
        AVHWDeviceType known = AV_HWDEVICE_TYPE_NONE;
        while ((known = av_hwdevice_iterate_types(known)) != AV_HWDEVICE_TYPE_NONE) {
            Log::Debug(kTag, "%s, %s\n", "open", orNull(av_hwdevice_get_type_name(known)));
        }
        Log::Debug(kTag, "%s, \n", "open");
        return false;
    }

    hwPixFmt_ = AV_PIX_FMT_NONE;
    const AVCodecHWConfig* config = nullptr;
    for (int i = 0; (config = avcodec_get_hw_config(decoder, i)); ++i) {
        if ((config->methods & AV_CODEC_HW_CONFIG_METHOD_HW_DEVICE_CTX) && config->device_type == type) {
            hwPixFmt_ = config->pix_fmt;
            break;
        }
    }
    if (!config) {
        Log::Error(kTag, "Decoder %s does not support device type %s.\n", decoder->name,
                   orNull(av_hwdevice_get_type_name(type)));
    }
    Log::Debug(kTag, "%s, hwPixFmt_:%d\n", "open", hwPixFmt_);
    if (hwPixFmt_ == AV_PIX_FMT_NONE) {
        Log::Error(kTag, "can't found support pix\n");
        return false;
    }
    if (createHWDeviceContext(codecContext_, type) < 0) {
        Log::Error(kTag, "can't create device context\n");
        return false;
    }
    return true;
}

int FFVideoDecoder::createHWDeviceContext(AVCodecContext* context, AVHWDeviceType type) {
    const int ret = av_hwdevice_ctx_create(&hwDeviceContext_, type, nullptr, nullptr, 0);
    if (ret < 0) {
        Log::Error(kTag, "Failed to create specified HW device.\n");
        return ret;
    }
    context->hw_device_ctx = av_buffer_ref(hwDeviceContext_);
    return ret;
}

AVPixelFormat FFVideoDecoder::getHwFormat(AVCodecContext* context, const AVPixelFormat* formats) {
    auto* decoder = static_cast<FFVideoDecoder*>(context->opaque);
    for (const AVPixelFormat* p = formats; *p != AV_PIX_FMT_NONE; ++p) {
        Log::Debug(kTag, "%s, *p:%d.\n", "getHwFormat", *p);
        if (*p == decoder->hwPixFmt_) {
            decoder->isHardware_ = true;
            return *p;
        }
    }
    if (decoder->options_.allCodecs) {
        decoder->isHardware_ = false;
        Log::Warn(kTag, "%s, no surfaces for this stream, it is decoded in software\n", "getHwFormat");
        return avcodec_default_get_format(context, formats);
    }
    Log::Error(kTag, "%s, Failed to get HW surface format.\n", "getHwFormat");
    if (decoder->observer_) {
        decoder->observer_->onVideoDecodeFailed();
    }
    return AV_PIX_FMT_NONE;
}

}  // namespace kelp
