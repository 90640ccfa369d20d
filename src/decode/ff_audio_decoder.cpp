#include "decode/ff_audio_decoder.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/channel_layout.h>
#include <libavutil/error.h>
#include <libavutil/frame.h>
}

#include <algorithm>
#include <cstring>
#include <utility>

#include "clock/wrapping_math.h"
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

// Whether every plane is there and long enough for the number of samples.
bool holdsItsSamples(const AVFrame* frame) {
    const PlaneShape shape = PlaneShape::of(*frame);
    if (!frame->extended_data || frame->linesize[0] < int64_t{frame->nb_samples} * shape.sampleBytes) {
        return false;
    }
    return std::count(frame->extended_data, frame->extended_data + shape.planes, nullptr) == 0;
}

}  // namespace

void FFAudioDecoder::setOptions(const PlaybackOptions& options) {
    allCodecs_ = options.allCodecs;
    takesAtOnce_ = options.lowLiveDelay;
    resampler_ = FFResampler::make(options);
}

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

const char* FFAudioDecoder::name() const {
    return codecContext_ && codecContext_->codec ? codecContext_->codec->name : "";
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
    if (allCodecs_) {
        codecContext_->pkt_timebase = {1, 1000};  // by which the codec tells the time behind samples that it leaves out
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
    if (!resampler_->setOutput(spec)) {
        Log::Error(kTag, "%s, not supported sample format %d\n", "setOutputSpec", spec.sampleFormat);
        return false;
    }
    return true;
}

void FFAudioDecoder::close() {
    Log::Debug(kTag, "%s\n", "close");
    freeContexts();
}

void FFAudioDecoder::freeContexts() {
    av_frame_free(&frame_);
    avcodec_free_context(&codecContext_);
    resampler_->reset();
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
    if (isEnd || takesAtOnce_) {
        deliverDecoded();  // of an end what the codec held back; no packet will ask for it
    }
}

void FFAudioDecoder::deliverDecoded() {
    while (avcodec_receive_frame(codecContext_, frame_) >= 0) {
        deliverAudioFrame(frame_);
    }
}

int64_t FFAudioDecoder::timeOf(const AVFrame* frame, int64_t durationMs) {
    const int64_t pts = frame->pts != AV_NOPTS_VALUE ? frame->pts : allCodecs_ ? nextPtsMs_ : 0;
    nextPtsMs_ = wrappingAdd(pts, durationMs);
    return pts;
}

void FFAudioDecoder::deliverAudioFrame(AVFrame* frame) {
    if (!observer_) {
        return;
    }
    const int channels = frame->ch_layout.nb_channels;
    const int sampleRate = frame->sample_rate;
    const int nbSamples = frame->nb_samples;
    const int dataSize =
        av_samples_get_buffer_size(nullptr, channels, nbSamples, static_cast<AVSampleFormat>(frame->format), 1);
    if (dataSize < 0 || sampleRate <= 0 || !holdsItsSamples(frame)) {
        Log::Error(kTag, "%s, drop bad frame, channels:%d, sampleRate:%d, format:%d, samples:%d\n", "deliverAudioFrame",
                   channels, sampleRate, frame->format, nbSamples);
        return;
    }
    const int64_t durationMs = int64_t{nbSamples} * 1000 / sampleRate;
    const int64_t pts = timeOf(frame, durationMs);

    const int wanted = correctedSamples(nbSamples);
    FFResampler::Block block =
        resampler_->isNeeded(frame, wanted) ? resampler_->convert(frame, wanted, *observer_) : copy(frame, dataSize);
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
    info->lastsToMs = wrappingSubtract(wrappingAdd(pts, durationMs), 1);
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
    return saturatedInt(std::min(std::max(wanted, lowest), highest));
}

FFResampler::Block FFAudioDecoder::copy(const AVFrame* frame, int dataSize) {
    FFResampler::Block block;
    block.buffer = observer_->allocPcmBuffer(static_cast<unsigned int>(dataSize));
    if (!block.buffer) {
        return {};
    }
    // Each plane has a memory of its own; in the block they follow each other.
    const PlaneShape shape = PlaneShape::of(*frame);
    const size_t planeBytes = static_cast<size_t>(dataSize) / static_cast<size_t>(shape.planes);
    for (int plane = 0; plane < shape.planes; ++plane) {
        std::memcpy(block.buffer->data + static_cast<size_t>(plane) * planeBytes, frame->extended_data[plane],
                    planeBytes);
    }
    block.dataSize = dataSize;
    return block;
}

}  // namespace kelp
