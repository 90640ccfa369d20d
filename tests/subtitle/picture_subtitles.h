#pragma once

#include <string>
#include <vector>

extern "C" {
#include <libavcodec/codec_id.h>
}

namespace kelp::test {

// One picture of subtitles: a rectangle of two colours, the left half in the first.
struct PictureSubtitle {
    int startMs;
    int endMs;
    int x;
    int y;
    int width;
    int height;
};

constexpr int kPictureCanvasWidth = 720;
constexpr int kPictureCanvasHeight = 576;
constexpr unsigned int kLeftColor = 0xFFFF0000;   // opaque red
constexpr unsigned int kRightColor = 0xFF0000FF;  // opaque blue

// Has libavcodec encode them, as AV_CODEC_ID_DVD_SUBTITLE or AV_CODEC_ID_DVB_SUBTITLE, into a Matroska file at `path`.
void writePictureSubtitles(const std::string& path, AVCodecID codec, const std::vector<PictureSubtitle>& subtitles);

// Writes them as a blue-ray disc has them: each is taken away by an empty one.
void writePgsSubtitles(const std::string& path, const std::vector<PictureSubtitle>& subtitles);

}  // namespace kelp::test
