#pragma once

// What differs for tests between the FFmpeg releases that they build against.

#include <cstddef>
#include <cstdint>

extern "C" {
#include <libavcodec/packet.h>
}

struct AVFrame;
struct AVStream;

namespace kelp::test {

// Marks a frame as a key frame, or as none, as a decoder of this release does.
void setKeyFrame(AVFrame& frame, bool key);

// Room for `size` bytes of the stream's side data, as a demuxer leaves them; null if there is no memory.
uint8_t* newSideData(AVStream* stream, AVPacketSideDataType type, size_t size);

// The AVCodecID of VIDEO_CODEC_270, by its codec's name. Where the release has no such codec, its number elsewhere.
int codecId270();

}  // namespace kelp::test
