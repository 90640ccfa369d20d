#pragma once

#include <cstdint>

struct AVCodecContext;

namespace kelp {

// Whether `isUnreferenced` can be asked about this stream: H.264 and HEVC behind start codes, and MPEG-4.
bool marksUnreferenced(const AVCodecContext& context);

// Whether the packet holds a picture that no other one refers to, and nothing else that counts: without it all others
// are what they were.
bool isUnreferenced(const AVCodecContext& context, const uint8_t* data, int size);

}  // namespace kelp
