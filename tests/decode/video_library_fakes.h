#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/hwcontext.h>
#include <libswscale/swscale.h>
}

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kelp::test {

struct FreeVideoFrame {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
using VideoFramePtr = std::unique_ptr<AVFrame, FreeVideoFrame>;

// Stands between the video decoder and FFmpeg. A call goes through to the library unless a test put a function of its
// own in its place; what was asked is written down. Not locked: the test looks at it when nothing runs.
struct VideoLibraryFakes {
    // What a codec context was set to when it was opened.
    struct Opened {
        std::string decoder;
        AVCodecContext* context;
        int threads;
        int threadType;
        int flags;
        int idctAlgo;
        AVPixelFormat pixFmt;
        int width;
        int height;
        int extradataSize;
        bool hasDevice;
        bool hasOpaque;
        bool hasDefaultGetFormat;
        int result;
    };
    // A packet as it was sent; an end packet has no bytes and `end` set.
    struct Sent {
        bool end;
        std::vector<uint8_t> bytes;
        int64_t pts, dts, duration, pos;
        int flags;
        bool hasBuffer;
    };
    struct Conversion {
        int width, height, format;
    };

    std::function<const AVCodec*(const char*)> findByName;
    std::function<const AVCodec*(int)> findDecoder;
    std::function<AVHWDeviceType(const char*)> findDeviceType;
    std::function<const AVCodecHWConfig*(int)> hwConfig;
    std::function<int(AVBufferRef**, AVHWDeviceType)> createDevice;
    std::function<int(AVFrame*, const AVFrame*)> transfer;
    std::function<int(const AVPacket*)> send;

    // Whether this call is to fail; it goes through otherwise. openError gives the error, 0 for none.
    std::function<bool()> refuseContext;
    std::function<int()> openError;
    std::function<bool()> refuseFrame;
    std::function<bool()> refuseScaler;

    // With it set no picture comes from the codec but those queued here.
    bool queuePictures = false;
    std::deque<VideoFramePtr> pictures;

    // "find h264_cuvid", "open h264", "type cuda", "device cuda", "flush", in the order of the calls.
    std::vector<std::string> calls;
    std::vector<Opened> opened;
    std::vector<Sent> sent;
    std::vector<Conversion> conversions;
    int liveContexts = 0;
    int transfers = 0;
    int received = 0;  // pictures that came from the codec

    int callCount(const std::string& call) const;
};

// The one set of fakes of the program.
VideoLibraryFakes& videoFakes();

// The library's own decoder, past the fakes.
const AVCodec* realDecoder(AVCodecID id);

}  // namespace kelp::test
