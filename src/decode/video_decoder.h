#pragma once

#include <cstdint>
#include <memory>

#include "kelp_player/types.h"
#include "runtime/playback_options.h"

namespace kelp {

class FrameBuffer;
class MediaPacket;
class VideoFrameInfo;

// Takes what a video decoder makes, and lends it its buffers. Called on the thread that feeds the decoder, but for
// `freePixBuffer`, which comes from whatever thread drops a frame, and a failure of the hardware, which may come from a
// thread of the codec library's.
class VideoDecoderObserver {
public:
    virtual void onVideoDecoded(std::shared_ptr<VideoFrameInfo> frame) = 0;
    // The decoder can't go on as it was opened; it may report this again.
    virtual void onVideoDecodeFailed() = 0;
    // The input ended before a key frame: no picture will come.
    virtual void onVideoDecodeNoMoreFrame() = 0;
    // A buffer of at least `size` bytes, or none.
    virtual std::shared_ptr<FrameBuffer> allocPixBuffer(unsigned int size) = 0;
    virtual void freePixBuffer(std::shared_ptr<FrameBuffer> buffer) = 0;
    // Whether nobody takes a picture any more: none is to be made, and no packet decoded. Asked often.
    virtual bool isStopping() { return false; }

protected:
    ~VideoDecoderObserver() = default;
};

// Turns packets into pictures. `enableHardware`, `setOptions` and `open` come first, once, and before the thread that
// does all the rest; `close` comes last and releases what `open` made.
class IVideoDecoder {
public:
    virtual ~IVideoDecoder() = default;

    // `codecParameters`: the stream's AVCodecParameters, or null.
    virtual bool open(VideoCodecType codecType, const void* codecParameters, PixFormat pixFormat, bool isLive,
                      std::shared_ptr<VideoDecoderObserver> observer) = 0;
    virtual bool pause() = 0;
    virtual bool resume() = 0;
    virtual void close() = 0;

    // Delivers the pictures that are ready, then decodes `packet`, which stays the caller's.
    virtual void insertPacket(MediaPacket* packet) = 0;
    // Forgets all pictures and packets that are still inside, for a new start at a key frame.
    virtual void flush() = 0;

    // Whether hardware is to be used, and which kinds. Takes effect at `open`.
    virtual bool enableHardware(bool enable, HwDecodeMode mode) = 0;
    // What the host wants in another way; takes effect at `open`.
    virtual void setOptions(const PlaybackOptions&) {}

    // The library's name for the decoder that was opened, which lives for good, and whether hardware has a part in it
    // now: a stream that the hardware can't do may go on in software.
    virtual const char* name() const { return ""; }
    virtual bool isHardware() const { return false; }

    // How long a picture stays inside the decoder, smoothed, in milliseconds.
    virtual int64_t getAvgDecodeTime() = 0;

    // Nobody looks at pictures before this time, in milliseconds: they needn't come out, nor be decoded where no other
    // one depends on them. In force from the next packet on.
    virtual void setNeededFrom(int64_t) {}
    // A seek waits for a picture, which was inserted with all those before it and so many that are shown behind it;
    // less than none as long as it wasn't. A decoder that would give it out with later packets may do so now.
    virtual void setInsertedBehindTarget(int) {}

    virtual bool canDisplayDirectly() { return false; }
    virtual bool setDisplayWindow(void*) { return false; }
};

}  // namespace kelp
