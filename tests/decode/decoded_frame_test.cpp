#include "decode/decoded_frame.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "decode/audio_frame_info.h"
#include "decode/video_frame_info.h"

namespace kelp {
namespace {

using Buffers = std::vector<std::shared_ptr<FrameBuffer>>;

// Stands in memory that was used before.
template <class Frame>
struct OnUsedMemory : Frame {
    static void* operator new(size_t size) { return std::memset(::operator new(size), 0xA5, size); }
};

TEST(DecodedFrame, StartsWithNothing) {
    const std::unique_ptr<VideoFrameInfo> video(new OnUsedMemory<VideoFrameInfo>);
    const std::unique_ptr<AudioFrameInfo> audio(new OnUsedMemory<AudioFrameInfo>);
    for (const DecodedFrame* frame : std::initializer_list<const DecodedFrame*>{video.get(), audio.get()}) {
        EXPECT_EQ(frame->frameTag, 0);
        EXPECT_EQ(frame->pts, 0);
        EXPECT_EQ(frame->duration, 0);
        EXPECT_FALSE(frame->buffer || frame->freeBuffer || frame->allocBuffer);
    }
    EXPECT_EQ(video->pixFormat, PIX_FMT_YUV420P);
    EXPECT_EQ(video->colorRange, 0);
    EXPECT_EQ(video->colorSpace, 0);
    for (int plane = 0; plane < 8; ++plane) {
        EXPECT_EQ(video->data[plane], nullptr) << plane;
        EXPECT_EQ(video->linesize[plane], 0) << plane;
    }
    EXPECT_EQ(video->width, 0);
    EXPECT_EQ(video->height, 0);
    EXPECT_FALSE(video->keyFrame);
    EXPECT_EQ(video->rotate, 0);
    EXPECT_FALSE(video->decoderMemory[0] || video->decoderMemory[1] || video->decoderMemory[2]);
    EXPECT_EQ(audio->dataSize, 0U);
}

TEST(DecodedFrame, GivesItsBufferBackWhenItDies) {
    Buffers pool;
    const auto buffer = std::make_shared<FrameBuffer>();
    {
        VideoFrameInfo frame;
        frame.buffer = buffer;
        frame.freeBuffer = [&](std::shared_ptr<FrameBuffer> returned) { pool.push_back(std::move(returned)); };
    }
    EXPECT_EQ(pool, Buffers{buffer});
    // The pool's and the test's: the frame's own reference has gone.
    EXPECT_EQ(buffer.use_count(), 2);
}

TEST(DecodedFrame, StillHoldsBufferAndFunctionsDuringTheGiveBack) {
    long references = 0;
    bool hadAlloc = false;
    {
        VideoFrameInfo frame;
        frame.buffer = std::make_shared<FrameBuffer>();
        frame.allocBuffer = [](unsigned int) { return nullptr; };
        frame.freeBuffer = [&](std::shared_ptr<FrameBuffer> returned) {
            references = returned.use_count();
            hadAlloc = static_cast<bool>(frame.allocBuffer);
        };
    }
    EXPECT_EQ(references, 2);
    EXPECT_TRUE(hadAlloc);
}

TEST(DecodedFrame, CallsNothingWithoutABuffer) {
    int calls = 0;
    {
        VideoFrameInfo frame;
        frame.freeBuffer = [&](std::shared_ptr<FrameBuffer>) { ++calls; };
    }
    EXPECT_EQ(calls, 0);
}

TEST(DecodedFrame, LetsTheBufferDieWithItWithoutAWayBack) {
    std::weak_ptr<FrameBuffer> watched;
    {
        VideoFrameInfo frame;
        frame.buffer = std::make_shared<FrameBuffer>();
        watched = frame.buffer;
    }
    EXPECT_TRUE(watched.expired());
}

TEST(DecodedFrame, IsFoundAgainByItsKind) {
    const std::shared_ptr<DecodedFrame> frame = std::make_shared<VideoFrameInfo>();
    EXPECT_NE(std::dynamic_pointer_cast<VideoFrameInfo>(frame), nullptr);
}

}  // namespace
}  // namespace kelp
