#pragma once

#include "kelp_player/export.h"
#include "kelp_player/types.h"

struct AVCodecParameters;

namespace kelp {

// What is known of a source's streams. A host makes one for StreamMuxer::open and fills the fields that it knows;
// players give none out. The two parameter pointers stay null, but for a codec that has no number here.
class KELP_PLAYER_API CodecInfo {
public:
    CodecInfo();
    CodecInfo(const CodecInfo&) = delete;
    CodecInfo& operator=(const CodecInfo&) = delete;
    // Frees both parameter copies.
    virtual ~CodecInfo();

    VideoCodecType videoCodecType = VIDEO_CODEC_NONE;  // none also for a codec that isn't handled
    AudioCodecType audioCodecType = AUDIO_CODEC_NONE;  // likewise
    int width = 0;                                     // of the picture, in pixels
    int height = 0;                                    // of the picture, in pixels
    PixFormat pixFormat = PIX_FMT_NONE;                // of the encoded picture
    int frameRate = 0;                                 // whole frames per second
    int channels = 0;                                  // of the sound
    int sampleRate = 0;                                // of the sound, in Hz
    int sampleFormat = -1;  // 0 unsigned 8 bits, 1 signed 16, 2 signed 32, 3 float, 4 planar float; -1 any other

    // Deep copies of the streams' parameters, owned by this object; null where there is no such stream. They name the
    // codec where its type is "other". A host that wants to set one links the libavcodec that this library runs with,
    // and makes it with avcodec_parameters_alloc; it is freed here.
    AVCodecParameters* videoParameters = nullptr;
    AVCodecParameters* audioParameters = nullptr;
};

}  // namespace kelp
