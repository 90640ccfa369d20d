#include "decode/unreferenced_picture.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "input/annexb.h"

namespace kelp {

namespace {

enum class Unit { Unreferenced, Neutral, Needed };

// What a unit is by its first two bytes behind the start code.
Unit h264Unit(uint8_t first, uint8_t) {
    constexpr int kSlice = 1;
    constexpr int kEndOfSequence = 10;
    constexpr int kEndOfStream = 11;
    const int type = first & 0x1F;
    if ((first & 0x60) != 0 || type == kEndOfSequence || type == kEndOfStream) {
        return Unit::Needed;
    }
    return type == kSlice ? Unit::Unreferenced : Unit::Neutral;
}

Unit hevcUnit(uint8_t first, uint8_t) {
    constexpr int kLowestKey = 16;  // below it the even ones are unreferenced
    constexpr int kDelimiter = 35;
    constexpr int kFiller = 38;
    constexpr int kLastMessage = 40;
    const int type = first >> 1 & 0x3F;
    if (type < kLowestKey && type % 2 == 0) {
        return Unit::Unreferenced;
    }
    return type == kDelimiter || (type >= kFiller && type <= kLastMessage) ? Unit::Neutral : Unit::Needed;
}

Unit mpeg4Unit(uint8_t first, uint8_t second) {
    constexpr int kPicture = 0xB6;
    constexpr int kBetweenTwo = 2;  // the kind that is predicted from both sides
    return first == kPicture && second >> 6 == kBetweenTwo ? Unit::Unreferenced : Unit::Needed;
}

}  // namespace

bool marksUnreferenced(const AVCodecContext& context) {
    if (isLengthPrefixed(context.codec_id, context.extradata, context.extradata_size)) {
        return false;
    }
    if (context.codec_id != AV_CODEC_ID_HEVC) {
        return context.codec_id == AV_CODEC_ID_H264 || context.codec_id == AV_CODEC_ID_MPEG4;
    }
    // There it means that none of its own temporal layer refers to it, so there must be but one: three bits, behind the
    // header and 12 bits of the parameter set that comes first, tell. Two bytes of ones follow.
    constexpr int kBytes = 6;
    for (int i = 0; i + kBytes <= context.extradata_size; ++i) {
        const uint8_t* at = context.extradata + i;
        if (at[0] == 0x40 && at[1] == 0x01 && at[4] == 0xFF && at[5] == 0xFF) {
            return (at[3] >> 1 & 7) == 0;
        }
    }
    return false;
}

bool isUnreferenced(const AVCodecContext& context, const uint8_t* data, int size) {
    const auto unitOf = context.codec_id == AV_CODEC_ID_H264   ? h264Unit
                        : context.codec_id == AV_CODEC_ID_HEVC ? hevcUnit
                                                               : mpeg4Unit;
    bool found = false;
    for (int i = 0; i + 3 < size; ++i) {
        if (data[i] != 0 || data[i + 1] != 0 || data[i + 2] != 1) {
            continue;
        }
        const Unit unit = unitOf(data[i + 3], i + 4 < size ? data[i + 4] : 0);
        if (unit == Unit::Needed) {
            return false;
        }
        found = found || unit == Unit::Unreferenced;
    }
    return found;
}

}  // namespace kelp
