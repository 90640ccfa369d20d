#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "decode/audio_decoder.h"
#include "decode/ff_resampler.h"

struct AVCodecContext;
struct AVFrame;

namespace kelp {

// Decodes with FFmpeg. Frames come out in the wanted form, in buffers of the observer; a resampler is made when the
// first frame needs one. Where all codecs are played it follows the frames' form; otherwise it stays.
//
// Where the output can't change its tempo, audio is kept in step here: each frame is stretched or squeezed by as many
// samples as the observer asks for, within SAMPLE_CORRECTION_PERCENT_MAX percent.
//
// A packet or frame that fails is dropped, with no more than a log line. `close` frees what an opened decoder holds;
// the destructor doesn't.
class FFAudioDecoder : public IAudioDecoder {
public:
    void setOptions(const PlaybackOptions& options) override;
    // One that failed leaves nothing behind.
    bool open(AudioCodecType codecType, const void* codecParameters,
              std::shared_ptr<AudioDecoderObserver> observer) override;
    bool setOutputSpec(AudioOutputSpec spec) override;
    const char* name() const override;
    void close() override;
    void insertPacket(MediaPacket* packet) override;
    // The resampler keeps what it holds.
    void flush() override;
    void setNeededFrom(int64_t timeMs) override { neededFromMs_ = timeMs; }
    bool openSync(bool open) override;
    bool isSyncOpened() override { return syncOpened_.load(std::memory_order_relaxed); }

private:
    bool openCodec(AudioCodecType codecType, const void* codecParameters);
    void freeContexts();
    // What the codec has ready.
    void deliverDecoded();
    void deliverAudioFrame(AVFrame* frame);
    // Of several frames in a packet the first one alone has a time: where all codecs are played, the others follow it.
    int64_t timeOf(const AVFrame* frame, int64_t durationMs);

    // How many samples, at the decoded rate, a frame of `nbSamples` is to become.
    int correctedSamples(int nbSamples);
    // Without a buffer if the frame is to be dropped.
    FFResampler::Block copy(const AVFrame* frame, int dataSize);

    std::shared_ptr<AudioDecoderObserver> observer_;
    AVCodecContext* codecContext_ = nullptr;
    AVFrame* frame_ = nullptr;          // what the codec fills
    int64_t neededFromMs_ = INT64_MIN;  // packets before it aren't decoded
    bool hasGap_ = false;               // the packet before wasn't
    bool allCodecs_ = false;
    bool takesAtOnce_ = false;  // what a packet brings doesn't wait for the next one
    int64_t nextPtsMs_ = 0;     // the end of the frame before
    std::unique_ptr<FFResampler> resampler_ = FFResampler::make({});
    std::atomic<bool> syncOpened_{false};  // onSpeedUpSamples is asked
};

}  // namespace kelp
