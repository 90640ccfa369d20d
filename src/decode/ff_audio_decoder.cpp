#include "decode/ff_audio_decoder.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/channel_layout.h>
#include <libavutil/error.h>
#include <libavutil/frame.h>
#include <libswresample/swresample.h>
}

#include <algorithm>
#include <cstring>
#include <limits>
#include <utility>

#include "decode/audio_frame_info.h"
#include "decode/packet_time.h"
#include "input/codec_tables.h"
#include "input/media_packet.h"
#include "kelp_player/log.h"
#include "kelp_player/sync_clock.h"

namespace kelp {

namespace {

constexpr char kTag[] = "FFAudioDecoder";
constexpr int kErrorTextBytes = 255;
constexpr int kMarginSamples = 256;     // room in a block above what the rates say, for what the resampler held back
constexpr int kMaxOutputPointers = 64;  // as many channels as the resampler takes

int toInt(int64_t value) {
    return static_cast<int>(
        std::clamp<int64_t>(value, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()));
}

// How the samples of a frame lie in memory.
struct PlaneShape {
    int planes;
    int sampleBytes;  // of one sample time in one plane
};

PlaneShape planeShape(AVSampleFormat format, int channels) {
    const int bytes = av_get_bytes_per_sample(format);
    return av_sample_fmt_is_planar(format) ? PlaneShape{channels, bytes} : PlaneShape{1, channels * bytes};
}

AVSampleFormat formatOf(const AVFrame* frame) {
    return static_cast<AVSampleFormat>(frame->format);
}

// Whether every plane is there and long enough for the number of samples.
bool holdsItsSamples(const AVFrame* frame) {
    const PlaneShape shape = planeShape(formatOf(frame), frame->ch_layout.nb_channels);
    if (!frame->extended_data || frame->linesize[0] < int64_t{frame->nb_samples} * shape.sampleBytes) {
        return false;
    }
    return std::count(frame->extended_data, frame->extended_data + shape.planes, nullptr) == 0;
}

}  // namespace

bool FFAudioDecoder::open(AudioCodecType codecType, const void* codecParameters,
                          std::shared_ptr<AudioDecoderObserver> observer) {
    Log::Info(kTag, "%s, codecType:%d\n", "open", static_cast<int>(codecType));
    observer_ = std::move(observer);
    if (!openCodec(codecType, codecParameters)) {
        // Nobody closes a decoder that didn't open, and the observer holds it.
        freeContexts();
        observer_.reset();
        return false;
    }
    Log::Info(kTag, "%s succeed, codecType:%d\n", "open", static_cast<int>(codecType));
    return true;
}

bool FFAudioDecoder::openCodec(AudioCodecType codecType, const void* codecParameters) {
    const auto* const parameters = static_cast<const AVCodecParameters*>(codecParameters);
    const int codecId = codecIdFromType(codecType, parameters);
    if (codecId == AV_CODEC_ID_NONE) {
        Log::Error(kTag, "%s, could not find audio codec type:%d\n", "open", static_cast<int>(codecType));
        return false;
    }
    const AVCodec* decoder = avcodec_find_decoder(static_cast<AVCodecID>(codecId));
    if (!decoder) {
        Log::Error(kTag, "%s, could not find audio codecId:%d for codec type:%d \n", "open", codecId,
                   static_cast<int>(codecType));
        return false;
    }
    codecContext_ = avcodec_alloc_context3(decoder);
    if (!codecContext_) {
        Log::Error(kTag, "%s, could not alloc codec context, type:%d, ffCodecID:%d\n", "open",
                   static_cast<int>(codecType), codecId);
        return false;
    }
    if (parameters) {
        avcodec_parameters_to_context(codecContext_, parameters);
    }
    if (avcodec_open2(codecContext_, decoder, nullptr) < 0) {
        Log::Error(kTag, "%s, count not open audio codec type:%d, ffcodecId:%d\n", "open", static_cast<int>(codecType),
                   codecId);
        return false;
    }
    frame_ = av_frame_alloc();
    if (!frame_) {
        Log::Error(kTag, "%s, count not alloc output frame\n", "open");
        return false;
    }
    return true;
}

bool FFAudioDecoder::setOutputSpec(AudioOutputSpec spec) {
    Log::Info(kTag, "%s, channels:%d, sampleRate:%d, sampleFormat:%d\n", "setOutputSpec", spec.channels,
              spec.sampleRate, spec.sampleFormat);
    outSampleFormat_ = static_cast<AVSampleFormat>(avSampleFormatFromSampleFormat(spec.sampleFormat));
    if (outSampleFormat_ == AV_SAMPLE_FMT_NONE) {
        Log::Error(kTag, "%s, not supported sample format %d\n", "setOutputSpec", spec.sampleFormat);
        return false;
    }
    outChannels_ = spec.channels;
    outSampleRate_ = spec.sampleRate;
    hasOutputSpec_ = true;
    return true;
}

void FFAudioDecoder::close() {
    Log::Debug(kTag, "%s\n", "close");
    freeContexts();
}

void FFAudioDecoder::freeContexts() {
    av_frame_free(&frame_);
    avcodec_free_context(&codecContext_);
    swr_free(&swrContext_);
}

void FFAudioDecoder::flush() {
    Log::Debug(kTag, "%s\n", "flush");
    if (codecContext_) {
        avcodec_flush_buffers(codecContext_);
    }
}

bool FFAudioDecoder::openSync(bool open) {
    syncOpened_.store(open, std::memory_order_relaxed);
    return true;
}

void FFAudioDecoder::insertPacket(MediaPacket* packet) {
    if (!codecContext_) {
        return;
    }
    AVPacket avPacket;
    lendPacket(*packet, &avPacket);

    deliverDecoded();

    const bool isEnd = !avPacket.data;
    const bool isNeeded = isEnd || avPacket.pts >= neededFromMs_;
    if (std::exchange(hasGap_, !isNeeded) && isNeeded) {
        avcodec_flush_buffers(codecContext_);
    }
    if (!isNeeded) {
        return;
    }
    const int ret = avcodec_send_packet(codecContext_, &avPacket);
    if (ret < 0) {
        char text[kErrorTextBytes] = {};
        av_strerror(ret, text, sizeof(text));
        Log::Error(kTag, "%s, avcodec_send_packet failed, ret:%d, %s\n", "insertPacket", ret, text);
    }
    if (isEnd) {
        deliverDecoded();  // what the codec held back; no packet will ask for it
    }
}

void FFAudioDecoder::deliverDecoded() {
    while (avcodec_receive_frame(codecContext_, frame_) >= 0) {
        deliverAudioFrame(frame_);
    }
}

void FFAudioDecoder::deliverAudioFrame(AVFrame* frame) {
    if (!observer_) {
        return;
    }
    const int64_t pts = frame->pts == AV_NOPTS_VALUE ? 0 : frame->pts;
    const int channels = frame->ch_layout.nb_channels;
    const int sampleRate = frame->sample_rate;
    const int nbSamples = frame->nb_samples;
    const int dataSize = av_samples_get_buffer_size(nullptr, channels, nbSamples, formatOf(frame), 1);
    if (dataSize < 0 || sampleRate <= 0 || !holdsItsSamples(frame)) {
        Log::Error(kTag, "%s, drop bad frame, channels:%d, sampleRate:%d, format:%d, samples:%d\n", "deliverAudioFrame",
                   channels, sampleRate, frame->format, nbSamples);
        return;
    }
    const int64_t durationMs = int64_t{nbSamples} * 1000 / sampleRate;

    const int wanted = correctedSamples(nbSamples);
    if (!swrContext_ && needsResampler(frame, wanted) && !makeResampler(frame)) {
        return;
    }
    Block block = swrContext_ ? resample(frame, wanted) : copy(frame, dataSize);
    if (!block.buffer) {
        return;
    }

    auto info = std::make_shared<AudioFrameInfo>();
    info->buffer = std::move(block.buffer);
    info->dataSize = static_cast<unsigned int>(block.dataSize);
    const std::weak_ptr<AudioDecoderObserver> weakObserver = observer_;
    info->freeBuffer = [weakObserver](std::shared_ptr<FrameBuffer> buffer) {
        if (const auto observer = weakObserver.lock()) {
            observer->freePcmBuffer(std::move(buffer));
        }
    };
    info->allocBuffer = [weakObserver](unsigned int size) -> std::shared_ptr<FrameBuffer> {
        const auto observer = weakObserver.lock();
        return observer ? observer->allocPcmBuffer(size) : nullptr;
    };
    info->frameTag = 0;
    info->pts = pts;
    info->duration = durationMs;
    observer_->onAudioDecoded(std::move(info));
}

int FFAudioDecoder::correctedSamples(int nbSamples) {
    if (!isSyncOpened()) {
        return nbSamples;
    }
    const int speedUp = observer_->onSpeedUpSamples();
    if (speedUp == 0) {
        return nbSamples;
    }
    // In 64 bits, and with no order assumed between the two ends: a host may have written any percentage.
    const int64_t percent = std::atomic_ref<int>(SAMPLE_CORRECTION_PERCENT_MAX).load(std::memory_order_relaxed);
    const int64_t lowest = (100 - percent) * nbSamples / 100;
    const int64_t highest = (100 + percent) * nbSamples / 100;
    const int64_t wanted = int64_t{nbSamples} - speedUp;
    return toInt(std::min(std::max(wanted, lowest), highest));
}

bool FFAudioDecoder::needsResampler(const AVFrame* frame, int wanted) const {
    if (wanted != frame->nb_samples) {
        return true;
    }
    return hasOutputSpec_ && (formatOf(frame) != outSampleFormat_ || frame->ch_layout.nb_channels != outChannels_ ||
                              frame->sample_rate != outSampleRate_);
}

bool FFAudioDecoder::makeResampler(AVFrame* frame) {
    const AVSampleFormat format = formatOf(frame);
    const int channels = frame->ch_layout.nb_channels;
    Log::Info(kTag, "%s, (%d:%d:%d) -> (%d:%d:%d)\n", "deliverAudioFrame", channels, frame->sample_rate,
              static_cast<int>(format), outChannels_, outSampleRate_, static_cast<int>(outSampleFormat_));
    AVChannelLayout layout{};
    av_channel_layout_default(&layout, outChannels_);
    swr_alloc_set_opts2(&swrContext_, &layout, outSampleFormat_, outSampleRate_, &frame->ch_layout, format,
                        frame->sample_rate, 0, nullptr);
    if (!swrContext_ || swr_init(swrContext_) < 0) {
        Log::Error(kTag, "%s swr_init() failed, swrContext_:%p\n", "deliverAudioFrame",
                   static_cast<void*>(swrContext_));
        swr_free(&swrContext_);
        return false;
    }
    swrInFormat_ = format;
    swrInChannels_ = channels;
    return true;
}

bool FFAudioDecoder::fitsResampler(const AVFrame* frame) const {
    const PlaneShape read = planeShape(swrInFormat_, swrInChannels_);
    const PlaneShape held = planeShape(formatOf(frame), frame->ch_layout.nb_channels);
    return read.planes <= held.planes && read.sampleBytes <= held.sampleBytes;
}

FFAudioDecoder::Block FFAudioDecoder::resample(const AVFrame* frame, int wanted) {
    const int nbSamples = frame->nb_samples;
    const int sampleRate = frame->sample_rate;
    if (!fitsResampler(frame)) {
        Log::Error(kTag, "%s, drop frame that the resampler wasn't made for, channels:%d, format:%d\n",
                   "deliverAudioFrame", frame->ch_layout.nb_channels, frame->format);
        return {};
    }

    const int64_t distance = int64_t{outSampleRate_} * wanted / sampleRate;
    const int outCount = static_cast<int>(distance + kMarginSamples);
    const int outSize = outCount == distance + kMarginSamples
                            ? av_samples_get_buffer_size(nullptr, outChannels_, outCount, outSampleFormat_, 0)
                            : AVERROR(EINVAL);
    if (outSize < 0) {
        Log::Error(kTag, "%s av_samples_get_buffer_size() failed\n", "deliverAudioFrame");
        return {};
    }

    // The difference is spread over just this frame.
    if (wanted != nbSamples) {
        const int64_t sampleDelta = (int64_t{wanted} - nbSamples) * outSampleRate_ / sampleRate;
        if (swr_set_compensation(swrContext_, toInt(sampleDelta), static_cast<int>(distance)) < 0) {
            Log::Error(kTag, "swr_set_compensation() failed\n");
            return {};
        }
    }

    Block block;
    block.buffer = observer_->allocPcmBuffer(static_cast<unsigned int>(outSize));
    if (!block.buffer) {
        return {};
    }
    uint8_t* outputs[kMaxOutputPointers] = {block.buffer->data};
    const int converted =
        swr_convert(swrContext_, outputs, outCount, const_cast<const uint8_t**>(frame->extended_data), nbSamples);
    if (converted < 0) {
        Log::Error(kTag, "%s, swr_convert() failed\n", "deliverAudioFrame");
        observer_->freePcmBuffer(std::move(block.buffer));
        return {};
    }
    if (converted == outCount) {
        // The resampler may hold more than fitted; this drops it.
        Log::Warn(kTag, "%s, audio buffer is probably too small\n", "deliverAudioFrame");
        if (swr_init(swrContext_) < 0) {
            swr_free(&swrContext_);
        }
    }
    block.dataSize = outChannels_ * av_get_bytes_per_sample(outSampleFormat_) * converted;
    return block;
}

FFAudioDecoder::Block FFAudioDecoder::copy(const AVFrame* frame, int dataSize) {
    Block block;
    block.buffer = observer_->allocPcmBuffer(static_cast<unsigned int>(dataSize));
    if (!block.buffer) {
        return {};
    }
    // Each plane has a memory of its own; in the block they follow each other.
    const PlaneShape shape = planeShape(formatOf(frame), frame->ch_layout.nb_channels);
    const size_t planeBytes = static_cast<size_t>(dataSize) / static_cast<size_t>(shape.planes);
    for (int plane = 0; plane < shape.planes; ++plane) {
        std::memcpy(block.buffer->data + static_cast<size_t>(plane) * planeBytes, frame->extended_data[plane],
                    planeBytes);
    }
    block.dataSize = dataSize;
    return block;
}

}  // namespace kelp
