#include "decode/decoded_frame.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "decode/video_frame_info.h"

namespace kelp {
namespace {

using Buffers = std::vector<std::shared_ptr<FrameBuffer>>;

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
