#include "input/annexb.h"

extern "C" {
#include <libavcodec/codec_id.h>
}

namespace kelp {
namespace {

constexpr int kMinHevcRecordBytes = 23;  // of a decoder configuration record without parameter sets

bool beginsWithStartCode(const uint8_t* data, int size) {
    if (size < 3 || data[0] != 0 || data[1] != 0) {
        return false;
    }
    return data[2] == 1 || (size >= 4 && data[2] == 0 && data[3] == 1);
}

}  // namespace

bool isLengthPrefixed(int codecId, const uint8_t* extraData, int size) {
    const bool isLongEnough =
        (codecId == AV_CODEC_ID_H264 && size >= 1) || (codecId == AV_CODEC_ID_HEVC && size >= kMinHevcRecordBytes);
    return extraData && isLongEnough && !beginsWithStartCode(extraData, size);
}

}  // namespace kelp
