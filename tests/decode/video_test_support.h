#pragma once

extern "C" {
#include <libavcodec/codec_par.h>
#include <libavutil/pixfmt.h>
}

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "decode/video_decoder.h"
#include "decode/video_frame_info.h"
#include "decode/video_library_fakes.h"
#include "input/media_packet.h"
#include "kelp_player/types.h"

namespace kelp::test {

struct FreeVideoParameters {
    void operator()(AVCodecParameters* parameters) const;
};
using VideoParametersPtr = std::unique_ptr<AVCodecParameters, FreeVideoParameters>;

// A stream as a demuxer hands it out.
struct VideoStream {
    VideoCodecType codecType;
    PixFormat pixFormat;
    int width;
    int height;
    VideoParametersPtr parameters;  // with the stream's display matrix
    std::vector<std::shared_ptr<VideoPacket>> packets;
    std::vector<std::vector<uint8_t>> pictures;  // planar 4:2:0, as the ffmpeg command decodes them

    // The picture as a frame holds it: chroma planes of half the size, rounded down.
    std::vector<uint8_t> expected(size_t index) const;
};

// Encodes a test picture of the size given with `encoderOptions` of the ffmpeg command into a temporary file of the
// kind that `extension` names, gives it a display matrix of 90 degrees clockwise if it is to be `turned`, and reads it
// back.
VideoStream makeVideoStream(const std::string& encoderOptions, const std::string& extension, int width, int height,
                            int frames, bool turned = false);

// A packet with `size` bytes and times in milliseconds.
std::shared_ptr<VideoPacket> makeVideoPacket(int64_t pts, int size = 16);
std::shared_ptr<VideoPacket> makeEndPacket(bool foundKeyFrame);
std::shared_ptr<VideoPacket> makeFlushPacket();

// A picture with memory of its own as a codec gives it; every plane has another pattern.
VideoFramePtr makePicture(int64_t pts, int width = 64, int height = 48, AVPixelFormat format = AV_PIX_FMT_YUV420P);
enum class Mirror { No, LeftToRight, TopToBottom };
// Gives it the display matrix of a clockwise rotation and, behind it, of a mirror.
void addDisplayMatrix(AVFrame* picture, double clockwise, Mirror mirror = Mirror::No);

// The bytes of the frame's three planes, without what its rows may have behind them.
std::vector<uint8_t> planesOf(const VideoFrameInfo& frame);

// Takes what a decoder delivers and writes it down. Its buffers carry a tail behind their capacity that must stay
// untouched: vector code isn't seen by the sanitizers.
class RecordingVideoObserver : public VideoDecoderObserver {
public:
    virtual ~RecordingVideoObserver() = default;

    void onVideoDecoded(std::shared_ptr<VideoFrameInfo> frame) override;
    void onVideoDecodeFailed() override { ++failures; }
    void onVideoDecodeNoMoreFrame() override { ++noMoreFrames; }
    std::shared_ptr<FrameBuffer> allocPixBuffer(unsigned int size) override;
    void freePixBuffer(std::shared_ptr<FrameBuffer> buffer) override;
    bool isStopping() override { return stopsWhen && stopsWhen(); }

    std::vector<int64_t> times() const;
    std::vector<int64_t> durations() const;

    std::vector<std::shared_ptr<VideoFrameInfo>> frames;
    std::function<bool()> stopsWhen;
    int failures = 0;
    int noMoreFrames = 0;
    bool refuseBuffers = false;
    std::vector<unsigned int> sizesAsked;
    std::vector<std::shared_ptr<FrameBuffer>> buffersGivenBack;
    int tailsWrittenTo = 0;  // among the frames' buffers
};

}  // namespace kelp::test
