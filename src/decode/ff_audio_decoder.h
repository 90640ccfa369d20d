#pragma once

extern "C" {
#include <libavutil/samplefmt.h>
}

#include <atomic>
#include <cstdint>
#include <memory>

#include "decode/audio_decoder.h"

struct AVCodecContext;
struct AVFrame;
struct SwrContext;

namespace kelp {

// Decodes with FFmpeg. Frames come out in the wanted form, in buffers of the observer; a resampler is made when the
// first frame needs one, and stays.
//
// Where the output can't change its tempo, audio is kept in step here: each frame is stretched or squeezed by as many
// samples as the observer asks for, within SAMPLE_CORRECTION_PERCENT_MAX percent.
//
// A packet or frame that fails is dropped, with no more than a log line. `close` frees what an opened decoder holds;
// the destructor doesn't.
class FFAudioDecoder : public IAudioDecoder {
public:
    // One that failed leaves nothing behind.
    bool open(AudioCodecType codecType, const void* codecParameters,
              std::shared_ptr<AudioDecoderObserver> observer) override;
    bool setOutputSpec(AudioOutputSpec spec) override;
    void close() override;
    void insertPacket(MediaPacket* packet) override;
    // The resampler keeps what it holds.
    void flush() override;
    void setNeededFrom(int64_t timeMs) override { neededFromMs_ = timeMs; }
    bool openSync(bool open) override;
    bool isSyncOpened() override { return syncOpened_.load(std::memory_order_relaxed); }

private:
    // Samples of one frame in the form in which they leave.
    struct Block {
        std::shared_ptr<FrameBuffer> buffer;
        int dataSize = 0;
    };

    bool openCodec(AudioCodecType codecType, const void* codecParameters);
    void freeContexts();
    // What the codec has ready.
    void deliverDecoded();
    void deliverAudioFrame(AVFrame* frame);

    // How many samples, at the decoded rate, a frame of `nbSamples` is to become.
    int correctedSamples(int nbSamples);
    bool needsResampler(const AVFrame* frame, int wanted) const;
    bool makeResampler(AVFrame* frame);
    // Whether the frame has all the bytes that the resampler, made for an earlier frame, would read.
    bool fitsResampler(const AVFrame* frame) const;

    // Both give a block without buffer if the frame is to be dropped.
    Block resample(const AVFrame* frame, int wanted);
    Block copy(const AVFrame* frame, int dataSize);

    std::shared_ptr<AudioDecoderObserver> observer_;
    AVCodecContext* codecContext_ = nullptr;
    AVFrame* frame_ = nullptr;          // what the codec fills
    int64_t neededFromMs_ = INT64_MIN;  // packets before it aren't decoded
    bool hasGap_ = false;               // the packet before wasn't
    bool hasOutputSpec_ = false;
    int32_t outChannels_ = 0;                              // valid with hasOutputSpec_, like the two below
    int32_t outSampleRate_ = 0;                            // in Hz
    AVSampleFormat outSampleFormat_ = AV_SAMPLE_FMT_NONE;  // also after a spec that was refused
    SwrContext* swrContext_ = nullptr;
    AVSampleFormat swrInFormat_ = AV_SAMPLE_FMT_NONE;  // of the frame for which swrContext_ was made
    int swrInChannels_ = 0;                            // likewise
    std::atomic<bool> syncOpened_{false};              // onSpeedUpSamples is asked
};

}  // namespace kelp
