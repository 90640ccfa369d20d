#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "kelp_player/codec_info.h"
#include "support/temp_files.h"

namespace kelp::test {

// One frame as a demuxer gives it. The bytes lie in a block of just their size.
struct EncodedFrame {
    std::vector<unsigned char> bytes;
    int64_t pts = 0;
    bool keyFrame = false;
};

// The first stream of a source, which is to be video, read to its end.
struct EncodedVideo {
    bool opened = false;
    int codecId = 0;
    int width = 0;
    int height = 0;
    int timeBaseDen = 0;
    std::vector<EncodedFrame> frames;
    std::vector<std::string> pictures;  // decoded, the bytes of their planes
};

// `options` go to the demuxer.
EncodedVideo readVideo(const std::string& url, const std::map<std::string, std::string>& options = {});

// Encodes `frames` test pictures of 160x120, 25 in a second, with the ffmpeg command. `arguments` choose the codec.
EncodedVideo encodeVideo(const std::string& arguments, int frames);

// Of those pictures, without parameter sets.
std::shared_ptr<CodecInfo> makeCodecInfo(VideoCodecType type = VIDEO_CODEC_H264);

}  // namespace kelp::test
