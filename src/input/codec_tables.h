#pragma once

#include "kelp_player/types.h"

struct AVCodecParameters;

// The library's own numbers for codecs and formats, and FFmpeg's. A value that one side doesn't know becomes -1, or
// AV_CODEC_ID_NONE (0) where an AVCodecID is asked for. AVCodecID, AVPixelFormat and AVSampleFormat travel as int.
namespace kelp {

VideoCodecType videoCodecTypeFromId(int codecId);
AudioCodecType audioCodecTypeFromId(int codecId);
int codecIdFromType(VideoCodecType type);
int codecIdFromType(AudioCodecType type);
// The same where an "other" codec may come: its number is the parameters'. They may be null.
int codecIdFromType(VideoCodecType type, const AVCodecParameters* parameters);
int codecIdFromType(AudioCodecType type, const AVCodecParameters* parameters);

PixFormat pixFormatFromAv(int avPixelFormat);
int avPixelFormatFromPixFormat(PixFormat format);

// 0 unsigned 8 bits, 1 signed 16, 2 signed 32, 3 float, 4 planar float.
int sampleFormatFromAv(int avSampleFormat);
int avSampleFormatFromSampleFormat(int sampleFormat);

}  // namespace kelp
