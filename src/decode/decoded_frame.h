#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <memory>

namespace kelp {

// A block of bytes that frames and the pools pass to each other.
class FrameBuffer {
public:
    FrameBuffer() = default;
    FrameBuffer(const FrameBuffer&) = delete;
    FrameBuffer& operator=(const FrameBuffer&) = delete;
    virtual ~FrameBuffer();

    unsigned char* data = nullptr;  // owned, made by new[]
    unsigned int size = 0;          // capacity in bytes; a frame may use less
};

// What leaves a decoder: a time, a duration and a pooled buffer. A frame that dies gives its buffer back to the pool
// through `freeBuffer`, on whatever thread drops the last reference.
//
// The decoder fills a frame; after it was queued, only the play thread that took it out writes to it.
class DecodedFrame {
public:
    DecodedFrame() = default;
    DecodedFrame(const DecodedFrame&) = delete;
    DecodedFrame& operator=(const DecodedFrame&) = delete;
    virtual ~DecodedFrame();

    // The memory that it keeps from others.
    virtual uint64_t bytes() const { return buffer ? buffer->size : 0; }
    int64_t filmMs() const { return pts - turnsMs; }

    int64_t frameTag = 0;  // or the packet's time in the stream's time base if it was not decoded
    int64_t pts = 0;       // in milliseconds from the start of the input, and of the turns of a loop before this one
    int64_t turnsMs = 0;   // how much of it those are
    int fractionUs = 0;    // of a picture: by how many microseconds its time goes beyond pts
    int64_t duration = 0;  // in milliseconds; a guess until the next frame is there
    // No other frame begins up to this time, in milliseconds, as far as it is known for certain.
    int64_t lastsToMs = std::numeric_limits<int64_t>::min();
    bool isBlanked = false;  // of a picture: it is black now, whatever was decoded
    int64_t queuedUs = 0;    // when it came into the queue of its play thread, by the steady clock, in microseconds
    std::shared_ptr<FrameBuffer> buffer;
    std::function<void(std::shared_ptr<FrameBuffer>)> freeBuffer;           // gives a buffer back to its pool
    std::function<std::shared_ptr<FrameBuffer>(unsigned int)> allocBuffer;  // fetches one; on audio frames only
};

}  // namespace kelp
