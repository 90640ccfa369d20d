#pragma once

extern "C" {
#include <libavutil/samplefmt.h>
}

#include <cstdint>
#include <memory>

#include "decode/audio_decoder.h"

struct AVChannelLayout;
struct AVFrame;
struct SwrContext;

namespace kelp {

// How the samples of a frame lie in memory.
struct PlaneShape {
    int planes;
    int sampleBytes;  // of one sample time in one plane

    static PlaneShape of(const AVFrame& frame);
};

// Brings decoded frames into the form of the output. One kind is made for the first frame that needs it, and stays; the
// other is made anew for each frame of another format, rate or layout than the one before. Owned by a decoder, and used
// on its threads.
class FFResampler {
public:
    // Samples of one frame in the form in which they leave.
    struct Block {
        std::shared_ptr<FrameBuffer> buffer;
        int dataSize = 0;
    };

    static std::unique_ptr<FFResampler> make(const PlaybackOptions& options);

    FFResampler() = default;
    FFResampler(const FFResampler&) = delete;
    FFResampler& operator=(const FFResampler&) = delete;
    virtual ~FFResampler() { reset(); }

    // The form of the output. False for one that isn't known: then the form is none, and channels and rate stay.
    bool setOutput(AudioOutputSpec spec);

    // Whether the frame has to go through it to become `wanted` samples, counted at its own rate.
    bool isNeeded(const AVFrame* frame, int wanted) const;

    // The frame in a block of the observer's, with what the frames before have left; without a buffer if the frame is
    // to be dropped.
    Block convert(AVFrame* frame, int wanted, AudioDecoderObserver& observer);

    // Frees what the frames made; the output stays.
    void reset();

protected:
    // Makes context_ ready for the frame; false if that can't be, which the log tells.
    virtual bool prepare(AVFrame* frame) = 0;

    // Makes context_ for frames of this format and rate. With `mixAll` each channel of the output gets all of the
    // frame's, whatever they are.
    bool open(const AVFrame* frame, const AVChannelLayout& layout, bool mixAll = false);
    void logOpen(const AVFrame* frame) const;
    // Says that there is no context, and sees to it.
    void giveUp();

    SwrContext* context_ = nullptr;
    SwrContext* before_ = nullptr;  // of the frames before; what it holds comes first

private:
    // Takes out what before_ holds, at most `room` sample times, and frees it; how many it were.
    int drainBefore(uint8_t* target, int room);

    bool hasOutputSpec_ = false;
    int outChannels_ = 0;                                  // valid with hasOutputSpec_, like the two below
    int outSampleRate_ = 0;                                // in Hz
    AVSampleFormat outSampleFormat_ = AV_SAMPLE_FMT_NONE;  // also after one that isn't known
};

}  // namespace kelp
