#pragma once

// What differs for tests between the FFmpeg releases that they build against.

struct AVFrame;

namespace kelp::test {

// Marks a frame as a key frame, or as none, as a decoder of this release does.
void setKeyFrame(AVFrame& frame, bool key);

// The AVCodecID of VIDEO_CODEC_270, by its codec's name. Where the release has no such codec, its number elsewhere.
int codecId270();

}  // namespace kelp::test
