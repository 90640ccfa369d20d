#pragma once

#include <cstdint>

extern "C" {
#include <libavcodec/codec_id.h>
}

namespace kelp {

// A decoder of its own for a kind of hardware. The table ends with a row without codec and name.
struct HWDecoderInfo {
    AVCodecID id;
    const char* name;  // of the decoder
};

// A device type that can take work off the software decoder. The table ends likewise.
struct HWAccelInfo {
    AVCodecID id;
    const char* name;  // of the device type
    const char* desc;  // for the log
};

// In the order in which they are tried.
extern const HWDecoderInfo kHWDecoders[];
extern const HWAccelInfo kHWAccels[];

}  // namespace kelp
