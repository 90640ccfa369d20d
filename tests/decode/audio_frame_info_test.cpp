#include "decode/audio_frame_info.h"

#include <gtest/gtest.h>

#include <memory>
#include <numeric>
#include <vector>

namespace kelp {
namespace {

using Buffers = std::vector<std::shared_ptr<FrameBuffer>>;
using Bytes = std::vector<unsigned char>;

std::shared_ptr<FrameBuffer> makeBuffer(unsigned int size) {
    auto buffer = std::make_shared<FrameBuffer>();
    buffer->data = new unsigned char[size]();
    buffer->size = size;
    return buffer;
}

// A frame of ten bytes, 1 to 10, over a pool that hands out buffers of the capacity asked for.
class AudioFrameInfoTest : public testing::Test {
protected:
    AudioFrameInfoTest() {
        frame_->buffer = old_;
        frame_->dataSize = 10;
        std::iota(old_->data, old_->data + 10, static_cast<unsigned char>(1));
        frame_->freeBuffer = [this](std::shared_ptr<FrameBuffer> buffer) { returned_.push_back(std::move(buffer)); };
        frame_->allocBuffer = [this](unsigned int size) -> std::shared_ptr<FrameBuffer> {
            asked_.push_back(size);
            return empty_ ? nullptr : makeBuffer(size);
        };
    }

    Bytes bytes(unsigned int count) const { return Bytes(frame_->buffer->data, frame_->buffer->data + count); }

    std::shared_ptr<FrameBuffer> old_ = makeBuffer(10);
    bool empty_ = false;
    std::vector<unsigned int> asked_;
    Buffers returned_;
    std::unique_ptr<AudioFrameInfo> frame_ = std::make_unique<AudioFrameInfo>();
};

TEST_F(AudioFrameInfoTest, StartsWithoutBytes) {
    EXPECT_EQ(AudioFrameInfo().dataSize, 0U);
}

TEST_F(AudioFrameInfoTest, MovesItsBytesIntoALargerBuffer) {
    frame_->reAllocBuffer(20);
    EXPECT_EQ(asked_, std::vector<unsigned int>{20});
    EXPECT_EQ(frame_->buffer->size, 20U);
    EXPECT_EQ(frame_->dataSize, 10U);
    EXPECT_EQ(bytes(12), (Bytes{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 0, 0}));
    EXPECT_EQ(returned_, Buffers{old_});
}

TEST_F(AudioFrameInfoTest, CopiesItsValidBytesOnly) {
    frame_->dataSize = 3;
    frame_->reAllocBuffer(20);
    EXPECT_EQ(frame_->dataSize, 3U);
    EXPECT_EQ(bytes(5), (Bytes{1, 2, 3, 0, 0}));
}

TEST_F(AudioFrameInfoTest, TruncatesToASmallerCapacity) {
    // The block is larger than its buffer says.
    frame_->allocBuffer = [](unsigned int) {
        auto buffer = makeBuffer(10);
        buffer->size = 4;
        return buffer;
    };
    frame_->reAllocBuffer(20);
    EXPECT_EQ(frame_->buffer->size, 4U);
    EXPECT_EQ(frame_->dataSize, 4U);
    EXPECT_EQ(bytes(10), (Bytes{1, 2, 3, 4, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(returned_, Buffers{old_});
}

TEST_F(AudioFrameInfoTest, StaysAsItWasWhenThePoolYieldsNothing) {
    empty_ = true;
    frame_->reAllocBuffer(20);
    EXPECT_EQ(asked_, std::vector<unsigned int>{20});
    EXPECT_EQ(frame_->buffer, old_);
    EXPECT_EQ(frame_->dataSize, 10U);
    EXPECT_TRUE(returned_.empty());
}

TEST_F(AudioFrameInfoTest, StaysAsItWasWithoutAPool) {
    frame_->allocBuffer = nullptr;
    frame_->reAllocBuffer(20);
    EXPECT_EQ(frame_->buffer, old_);
    EXPECT_EQ(frame_->dataSize, 10U);
    EXPECT_TRUE(returned_.empty());
}

TEST_F(AudioFrameInfoTest, KeepsItsSizeWhereItHadNoBuffer) {
    frame_->buffer.reset();
    frame_->dataSize = 30;
    frame_->reAllocBuffer(20);
    EXPECT_EQ(frame_->buffer->size, 20U);
    EXPECT_EQ(frame_->dataSize, 30U);
    EXPECT_TRUE(returned_.empty());
}

TEST_F(AudioFrameInfoTest, DropsTheOldBufferWithoutAWayBack) {
    frame_->freeBuffer = nullptr;
    const std::weak_ptr<FrameBuffer> watched = old_;
    old_.reset();
    frame_->reAllocBuffer(20);
    EXPECT_TRUE(watched.expired());
    EXPECT_EQ(frame_->dataSize, 10U);
    EXPECT_EQ(bytes(10), (Bytes{1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
}

}  // namespace
}  // namespace kelp
