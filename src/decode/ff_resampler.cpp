#include "decode/ff_resampler.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/error.h>
#include <libavutil/frame.h>
#include <libswresample/swresample.h>
}

#include <algorithm>
#include <utility>
#include <vector>

#include "clock/wrapping_math.h"
#include "decode/audio_frame_info.h"
#include "input/codec_tables.h"
#include "kelp_player/log.h"

namespace kelp {

namespace {

constexpr char kTag[] = "FFAudioDecoder";
constexpr int kMarginSamples = 256;     // room in a block above what the rates say, for what the resampler held back
constexpr int kMaxOutputPointers = 64;  // as many channels as the resampler takes

AVSampleFormat formatOf(const AVFrame* frame) {
    return static_cast<AVSampleFormat>(frame->format);
}

// Stays as it was made for the first frame. A later one of another form is read as if it had the first one's, if it has
// all the bytes that are read then.
class LastingResampler final : public FFResampler {
    bool prepare(AVFrame* frame) override {
        const PlaneShape held = PlaneShape::of(*frame);
        if (context_) {
            if (read_.planes <= held.planes && read_.sampleBytes <= held.sampleBytes) {
                return true;
            }
            Log::Error(kTag, "%s, drop frame that the resampler wasn't made for, channels:%d, format:%d\n",
                       "deliverAudioFrame", frame->ch_layout.nb_channels, frame->format);
            return false;
        }
        logOpen(frame);
        if (!open(frame, frame->ch_layout)) {
            giveUp();
            return false;
        }
        read_ = held;
        return true;
    }

    PlaneShape read_{};  // of the frame for which context_ was made
};

// Is made anew for a frame of another form; the one before gives out what it held.
class RenewedResampler final : public FFResampler {
public:
    ~RenewedResampler() override { av_channel_layout_uninit(&layout_); }

private:
    bool prepare(AVFrame* frame) override {
        if (context_ && frame->format == format_ && frame->sample_rate == rate_ &&
            av_channel_layout_compare(&frame->ch_layout, &layout_) == 0) {
            return true;
        }
        if (context_) {
            swr_free(&before_);
            before_ = std::exchange(context_, nullptr);
        }
        logOpen(frame);
        if (!openSomehow(frame)) {
            giveUp();
            return false;
        }
        format_ = frame->format;
        rate_ = frame->sample_rate;
        av_channel_layout_copy(&layout_, &frame->ch_layout);
        return true;
    }

    // A layout that isn't known, or that the library doesn't mix, is taken for the usual one of so many channels.
    bool openSomehow(const AVFrame* frame) {
        AVChannelLayout usual{};
        av_channel_layout_default(&usual, frame->ch_layout.nb_channels);
        return open(frame, frame->ch_layout) || open(frame, usual) || open(frame, usual, /*mixAll=*/true);
    }

    int format_ = AV_SAMPLE_FMT_NONE;  // of the frame for which context_ was made
    int rate_ = 0;                     // likewise, in Hz
    AVChannelLayout layout_{};         // likewise
};

}  // namespace

PlaneShape PlaneShape::of(const AVFrame& frame) {
    const AVSampleFormat format = formatOf(&frame);
    const int channels = frame.ch_layout.nb_channels;
    const int bytes = av_get_bytes_per_sample(format);
    return av_sample_fmt_is_planar(format) ? PlaneShape{channels, bytes} : PlaneShape{1, channels * bytes};
}

std::unique_ptr<FFResampler> FFResampler::make(const PlaybackOptions& options) {
    if (options.allCodecs) {
        return std::make_unique<RenewedResampler>();
    }
    return std::make_unique<LastingResampler>();
}

bool FFResampler::setOutput(AudioOutputSpec spec) {
    outSampleFormat_ = static_cast<AVSampleFormat>(avSampleFormatFromSampleFormat(spec.sampleFormat));
    if (outSampleFormat_ == AV_SAMPLE_FMT_NONE) {
        return false;
    }
    outChannels_ = spec.channels;
    outSampleRate_ = spec.sampleRate;
    hasOutputSpec_ = true;
    return true;
}

bool FFResampler::isNeeded(const AVFrame* frame, int wanted) const {
    if (context_ || wanted != frame->nb_samples) {
        return true;
    }
    return hasOutputSpec_ && (formatOf(frame) != outSampleFormat_ || frame->ch_layout.nb_channels != outChannels_ ||
                              frame->sample_rate != outSampleRate_);
}

void FFResampler::reset() {
    swr_free(&context_);
    swr_free(&before_);
}

void FFResampler::logOpen(const AVFrame* frame) const {
    Log::Info(kTag, "%s, (%d:%d:%d) -> (%d:%d:%d)\n", "deliverAudioFrame", frame->ch_layout.nb_channels,
              frame->sample_rate, frame->format, outChannels_, outSampleRate_, static_cast<int>(outSampleFormat_));
}

void FFResampler::giveUp() {
    Log::Error(kTag, "%s swr_init() failed, swrContext_:%p\n", "deliverAudioFrame", static_cast<void*>(context_));
    swr_free(&context_);
}

bool FFResampler::open(const AVFrame* frame, const AVChannelLayout& layout, bool mixAll) {
    swr_free(&context_);
    AVChannelLayout output{};
    av_channel_layout_default(&output, outChannels_);
    // Older releases want pointers to what they don't change.
    swr_alloc_set_opts2(&context_, &output, outSampleFormat_, outSampleRate_, const_cast<AVChannelLayout*>(&layout),
                        formatOf(frame), frame->sample_rate, 0, nullptr);
    if (context_ && mixAll) {
        const std::vector<double> matrix(static_cast<size_t>(outChannels_ * layout.nb_channels),
                                         1.0 / layout.nb_channels);
        swr_set_matrix(context_, matrix.data(), layout.nb_channels);
    }
    return context_ && swr_init(context_) >= 0;
}

FFResampler::Block FFResampler::convert(AVFrame* frame, int wanted, AudioDecoderObserver& observer) {
    if (!prepare(frame)) {
        return {};
    }
    const int nbSamples = frame->nb_samples;
    const int sampleRate = frame->sample_rate;
    const int held = before_ ? std::max(swr_get_out_samples(before_, 0), 0) : 0;
    const int64_t distance = int64_t{outSampleRate_} * wanted / sampleRate;
    const int outCount = static_cast<int>(distance + kMarginSamples);
    const int outSize = outCount == distance + kMarginSamples
                            ? av_samples_get_buffer_size(nullptr, outChannels_, saturatedInt(int64_t{held} + outCount),
                                                         outSampleFormat_, 0)
                            : AVERROR(EINVAL);
    if (outSize < 0) {
        Log::Error(kTag, "%s av_samples_get_buffer_size() failed\n", "deliverAudioFrame");
        return {};
    }

    // The difference is spread over just this frame.
    if (wanted != nbSamples) {
        const int64_t sampleDelta = (int64_t{wanted} - nbSamples) * outSampleRate_ / sampleRate;
        if (swr_set_compensation(context_, saturatedInt(sampleDelta), static_cast<int>(distance)) < 0) {
            Log::Error(kTag, "swr_set_compensation() failed\n");
            return {};
        }
    }

    Block block;
    block.buffer = observer.allocPcmBuffer(static_cast<unsigned int>(outSize));
    if (!block.buffer) {
        return {};
    }
    const int sampleBytes = outChannels_ * av_get_bytes_per_sample(outSampleFormat_);
    const int drained = before_ ? drainBefore(block.buffer->data, held) : 0;
    uint8_t* outputs[kMaxOutputPointers] = {block.buffer->data + drained * sampleBytes};
    const int converted =
        swr_convert(context_, outputs, outCount, const_cast<const uint8_t**>(frame->extended_data), nbSamples);
    if (converted < 0) {
        Log::Error(kTag, "%s, swr_convert() failed\n", "deliverAudioFrame");
        observer.freePcmBuffer(std::move(block.buffer));
        return {};
    }
    if (converted == outCount) {
        // The resampler may hold more than fitted; this drops it.
        Log::Warn(kTag, "%s, audio buffer is probably too small\n", "deliverAudioFrame");
        if (swr_init(context_) < 0) {
            swr_free(&context_);
        }
    }
    block.dataSize = sampleBytes * (drained + converted);
    return block;
}

int FFResampler::drainBefore(uint8_t* target, int room) {
    uint8_t* outputs[kMaxOutputPointers] = {target};
    const int drained = swr_convert(before_, outputs, room, nullptr, 0);
    swr_free(&before_);
    return std::max(drained, 0);
}

}  // namespace kelp
