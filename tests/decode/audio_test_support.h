#pragma once

extern "C" {
#include <libavcodec/codec_par.h>
#include <libavutil/frame.h>
#include <libavutil/samplefmt.h>
}

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "decode/audio_decoder.h"
#include "decode/audio_frame_info.h"
#include "input/media_packet.h"

struct AVPacket;

namespace kelp::test {

struct AVFrameDeleter {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
using AVFramePtr = std::unique_ptr<AVFrame, AVFrameDeleter>;

struct AVParametersDeleter {
    void operator()(AVCodecParameters* parameters) const;
};
using AVParametersPtr = std::unique_ptr<AVCodecParameters, AVParametersDeleter>;

// A frame with memory of its own. Byte i of each plane is i + 16 * plane, cut to a byte.
AVFramePtr makeAudioFrame(AVSampleFormat format, int channels, int sampleRate, int nbSamples, int64_t pts = 0);

// What an A-law decoder needs to know.
AVParametersPtr makeALawParameters(int channels = 2, int sampleRate = 44100);

std::shared_ptr<AudioPacket> makeAudioPacket(int64_t pts, int size = 64, int64_t num = 1, int64_t den = 1000);

// Takes what a decoder delivers, answers what it asks, and counts.
class RecordingAudioObserver : public AudioDecoderObserver {
public:
    virtual ~RecordingAudioObserver() = default;

    void onAudioDecoded(std::shared_ptr<AudioFrameInfo> frame) override;
    int onSpeedUpSamples() override;
    std::shared_ptr<FrameBuffer> allocPcmBuffer(unsigned int size) override;
    void freePcmBuffer(std::shared_ptr<FrameBuffer> buffer) override;

    std::vector<std::shared_ptr<AudioFrameInfo>> frames;
    int speedUp = 0;
    int speedUpAsked = 0;
    bool refuseBuffers = false;
    std::vector<unsigned int> sizesAsked;
    std::vector<std::shared_ptr<FrameBuffer>> buffersGivenBack;
};

// A tone as the ffmpeg command encodes it.
struct ToneFile {
    AudioCodecType codecType;
    AVParametersPtr parameters;
    std::vector<std::shared_ptr<AudioPacket>> packets;
    std::vector<std::shared_ptr<const AVPacket>> sideData;  // of each of them, which they don't have
};

// Makes a sine of `hz` in a temporary file with `encoder` in the container that `extension` names, and demuxes it.
ToneFile makeToneFile(const std::string& encoder, const std::string& extension, int hz, int sampleRate, int channels,
                      int seconds);

// The tone's frequency in Hz from its upward zero crossings; needs some hundred samples.
double measureHz(const std::vector<int16_t>& samples, int sampleRate);

}  // namespace kelp::test
