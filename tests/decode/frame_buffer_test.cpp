#include "decode/decoded_frame.h"

#include <gtest/gtest.h>

#include <memory>

namespace kelp {
namespace {

TEST(FrameBuffer, StartsWithoutABlock) {
    const FrameBuffer buffer;
    EXPECT_EQ(buffer.data, nullptr);
    EXPECT_EQ(buffer.size, 0U);
}

// The leak check of a sanitizer run tells.
TEST(FrameBuffer, ReleasesItsBlock) {
    auto buffer = std::make_shared<FrameBuffer>();
    buffer->data = new unsigned char[16];
    buffer->size = 16;
    buffer->data[15] = 1;
}

}  // namespace
}  // namespace kelp
