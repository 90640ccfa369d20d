#pragma once

// What differs between the FFmpeg releases that the library builds against (5.1, 6.1, 7.1): the one place, with its
// source file, that asks for a version.

#include <cstdint>

extern "C" {
#include <libavcodec/codec_id.h>
#include <libavcodec/version_major.h>
#include <libavformat/version_major.h>
}

struct AVCodecParameters;
struct AVContentLightMetadata;
struct AVFrame;
struct AVMasteringDisplayMetadata;
struct AVPacket;
struct AVStream;

namespace kelp::compat {

// The codec that the avcodec-60 interface numbers 270. Releases before it have no codec of that number; in avcodec 61
// an older codec was taken out, and all later ones moved down by one.
#if LIBAVCODEC_VERSION_MAJOR >= 61
constexpr AVCodecID kCodecId270 = AV_CODEC_ID_LEAD;
#else
constexpr auto kCodecId270 = static_cast<AVCodecID>(270);
#endif

// A deep copy of the stream's codec parameters, with what the stream has of the following; null if there is no memory.
// The caller owns it and gives it back to freeParameters.
AVCodecParameters* copyParameters(const AVStream* stream);

// The same of such a copy.
AVCodecParameters* copyParameters(const AVCodecParameters& parameters);

// Gives a stream that is to be written what came with `parameters` of the following.
void copySideData(const AVCodecParameters& parameters, AVStream* stream);

// Frees what copyParameters or avcodec_parameters_alloc made, if anything, and sets the pointer to null.
void freeParameters(AVCodecParameters** parameters);

// The 3x3 display matrix that came with `parameters`, nine values in the form that av_display_rotation_get takes, or
// null. It lives as long as the parameters, as does what the next two give.
const int32_t* displayMatrix(const AVCodecParameters* parameters);

// What the container states of the brightness of the stream's pictures, or null.
const AVContentLightMetadata* contentLight(const AVCodecParameters* parameters);
const AVMasteringDisplayMetadata* masteringDisplay(const AVCodecParameters* parameters);

// The frame's flags, with bit 1 set for a key frame.
int frameFlags(const AVFrame* frame);

// Puts default values into a packet on the stack that owns nothing.
void initPacket(AVPacket* packet);

}  // namespace kelp::compat
