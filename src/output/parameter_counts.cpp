#include "output/parameter_counts.h"

#include <algorithm>
#include <array>
#include <bit>
#include <utility>
#include <vector>

extern "C" {
#include <libavcodec/codec_id.h>
#include <libavformat/avformat.h>
}

namespace kelp {

namespace {

// What decoders take.
constexpr uint32_t kMostPicturesOfH264Cycle = 255;
constexpr uint32_t kMostReferenceSetsOfHevc = 64;
constexpr uint32_t kMostReferencesOfHevc = 16;
constexpr uint32_t kMostPartsOfVvc = 600;
constexpr uint32_t kLargestChromaFormat = 3;

constexpr std::array<uint8_t, 3> kStartCode{0, 0, 1};

// Reads bits; behind the end there are zeros.
class Bits {
public:
    explicit Bits(std::vector<uint8_t> bytes) : bytes_(std::move(bytes)), end_(bytes_.size() * 8) {}
    Bits(std::vector<uint8_t> bytes, size_t count) : bytes_(std::move(bytes)), end_(count) {}

    bool flag() {
        const size_t at = at_++;
        return at < end_ && (bytes_[at / 8] >> (7 - at % 8) & 1) != 0;
    }
    uint32_t read(int count) {
        uint32_t value = 0;
        for (; count > 0; --count) {
            value = value << 1 | static_cast<uint32_t>(flag());
        }
        return value;
    }
    // An Exp-Golomb code. One that is too long for 32 bits counts as an end.
    uint32_t code() {
        int zeros = 0;
        for (; !flag(); ++zeros) {
            if (zeros == 31 || hasEnded()) {
                end_ = 0;
                return 0;
            }
        }
        return (uint32_t{1} << zeros) - 1 + read(zeros);
    }
    int signedCode() {
        const uint32_t value = code();
        const auto half = static_cast<int>(value / 2);
        return value % 2 != 0 ? half + 1 : -half;
    }
    void skip(size_t count) { at_ += count; }
    void skipCodes(int count) {
        for (; count > 0; --count) {
            code();
        }
    }
    void align() { at_ = (at_ + 7) / 8 * 8; }
    // More was read than there is.
    bool hasEnded() const { return at_ > end_; }

private:
    std::vector<uint8_t> bytes_;
    size_t end_;  // in bits, as the next
    size_t at_ = 0;
};

// Without its header, the bytes that keep start codes out of it, and zeros at its end.
Bits payloadOf(std::span<const uint8_t> unit, size_t header) {
    std::vector<uint8_t> payload;
    int zeros = 0;
    for (const uint8_t byte : unit.subspan(std::min(header, unit.size()))) {
        const bool isAdded = zeros >= 2 && byte == 3;
        zeros = byte == 0 ? zeros + 1 : 0;
        if (!isAdded) {
            payload.push_back(byte);
        }
    }
    while (!payload.empty() && payload.back() == 0) {
        payload.pop_back();
    }
    return Bits(std::move(payload));
}

void skipH264ScalingLists(Bits& bits, int lists) {
    for (int list = 0; list < lists; ++list) {
        if (!bits.flag()) {
            continue;
        }
        int last = 8;
        for (int left = list < 6 ? 16 : 64; left > 0 && last != 0; --left) {
            last = (last + (bits.signedCode() & 255)) & 255;
        }
    }
}

bool isH264SetBounded(Bits bits) {
    constexpr std::array<uint32_t, 12> kWithChroma{100, 110, 122, 244, 44, 83, 86, 118, 128, 138, 139, 134};
    const uint32_t profile = bits.read(8);
    bits.skip(16);  // constraints, level
    bits.code();    // its number
    if (std::ranges::count(kWithChroma, profile) > 0) {
        const uint32_t chroma = bits.code();
        if (chroma > kLargestChromaFormat) {
            return false;
        }
        bits.skip(chroma == kLargestChromaFormat ? 1 : 0);
        bits.skipCodes(2);  // depths
        bits.skip(1);
        if (bits.flag()) {
            skipH264ScalingLists(bits, chroma == kLargestChromaFormat ? 12 : 8);
        }
    }
    bits.code();
    if (bits.code() == 1) {  // the order in which pictures are shown is told by a cycle
        bits.skip(1);
        bits.skipCodes(2);
        if (bits.code() > kMostPicturesOfH264Cycle) {
            return false;
        }
    }
    return !bits.hasEnded();
}

void skipHevcProfile(Bits& bits, uint32_t moreLayers) {
    bits.skip(96);
    std::array<std::pair<bool, bool>, 7> told{};
    for (uint32_t i = 0; i < moreLayers; ++i) {
        told[i].first = bits.flag();
        told[i].second = bits.flag();
    }
    bits.skip(moreLayers > 0 ? 2 * (8 - moreLayers) : 0);
    for (const auto& [profile, level] : told) {
        bits.skip((profile ? 88 : 0) + (level ? 8 : 0));
    }
}

void skipHevcScalingLists(Bits& bits) {
    for (int list = 0; list < 20; ++list) {
        const int coefficients = list < 6 ? 16 : 64;
        bits.skipCodes(!bits.flag() ? 1 : coefficients + (list < 12 ? 0 : 1));  // the last with their mean
    }
}

bool areHevcReferencesBounded(Bits& bits) {
    const uint32_t sets = bits.code();
    uint32_t before = 0;  // pictures in the set before
    for (uint32_t set = 0; set < sets && sets <= kMostReferenceSetsOfHevc; ++set) {
        uint32_t pictures = 0;
        if (set > 0 && bits.flag()) {
            bits.skip(1);
            bits.code();
            for (uint32_t i = 0; i <= before; ++i) {
                pictures += bits.flag() || bits.flag() ? 1 : 0;
            }
        } else {
            const uint32_t earlier = bits.code();
            const uint32_t later = bits.code();
            if (earlier > kMostReferencesOfHevc || later > kMostReferencesOfHevc) {
                return false;
            }
            pictures = earlier + later;
            for (uint32_t i = 0; i < pictures; ++i) {
                bits.code();
                bits.skip(1);
            }
        }
        before = pictures;
    }
    return sets <= kMostReferenceSetsOfHevc;
}

bool isHevcSetBounded(Bits bits) {
    bits.skip(4);
    const uint32_t moreLayers = bits.read(3);
    bits.skip(1);
    skipHevcProfile(bits, moreLayers);
    bits.code();  // its number
    const uint32_t chroma = bits.code();
    bits.skip(chroma == kLargestChromaFormat ? 1 : 0);
    bits.skipCodes(2);                    // width, height
    bits.skipCodes(bits.flag() ? 4 : 0);  // what is cut off
    bits.skipCodes(3);                    // depths, picture numbers
    bits.skipCodes(3 * (bits.flag() ? static_cast<int>(moreLayers) + 1 : 1));
    bits.skipCodes(6);  // blocks
    if (bits.flag() && bits.flag()) {
        skipHevcScalingLists(bits);
    }
    bits.skip(2);
    if (bits.flag()) {  // plain samples
        bits.skip(8);
        bits.skipCodes(2);
        bits.skip(1);
    }
    return chroma <= kLargestChromaFormat && areHevcReferencesBounded(bits) && !bits.hasEnded();
}

void skipVvcProfile(Bits& bits, uint32_t moreLayers) {
    bits.skip(18);
    if (bits.flag()) {  // constraints
        bits.skip(71);
        bits.skip(bits.read(8));
    }
    bits.align();
    const int levels = std::popcount(bits.read(static_cast<int>(moreLayers)));
    bits.align();
    bits.skip(8 * static_cast<size_t>(levels));
    bits.skip(32 * size_t{bits.read(8)});
}

bool isVvcSetBounded(Bits bits) {
    bits.skip(8);
    const uint32_t moreLayers = bits.read(3);
    bits.skip(4);
    if (bits.flag()) {
        skipVvcProfile(bits, moreLayers);
    }
    bits.skip(1);
    bits.skip(bits.flag() ? 1 : 0);
    bits.skipCodes(2);                    // width, height
    bits.skipCodes(bits.flag() ? 4 : 0);  // what is cut off
    return (!bits.flag() || bits.code() < kMostPartsOfVvc) && !bits.hasEnded();
}

// Those of other layers than the first, which newer libraries leave out.
bool isHevcSetUnread(std::span<const uint8_t> unit) {
    return ((unit[0] & 1) << 5 | unit[1] >> 3) > 0 && avformat_version() >= AV_VERSION_INT(61, 7, 0);
}

bool areSetsBounded(int codecId, std::span<const uint8_t> sets) {
    for (auto found = std::ranges::search(sets, kStartCode); !found.empty();) {
        const auto begin = found.end();
        found = std::ranges::search(begin, sets.end(), kStartCode.begin(), kStartCode.end());
        const std::span<const uint8_t> unit(begin, found.begin());
        if (unit.size() < 2) {
            continue;
        }
        constexpr int kOfH264 = 7;
        constexpr int kOfHevc = 33;
        constexpr int kOfVvc = 15;
        if ((codecId == AV_CODEC_ID_H264 && (unit[0] & 31) == kOfH264 && !isH264SetBounded(payloadOf(unit, 1))) ||
            (codecId == AV_CODEC_ID_HEVC && (unit[0] >> 1 & 63) == kOfHevc && !isHevcSetUnread(unit) &&
             !isHevcSetBounded(payloadOf(unit, 2))) ||
            (codecId == AV_CODEC_ID_VVC && unit[1] >> 3 == kOfVvc && !isVvcSetBounded(payloadOf(unit, 2)))) {
            return false;
        }
    }
    return true;
}

bool isAv1SequenceBounded(std::span<const uint8_t> sequence) {
    while (!sequence.empty() && sequence.back() == 0) {
        sequence = sequence.first(sequence.size() - 1);
    }
    if (sequence.empty()) {
        return false;
    }
    // A one and zeros end it.
    Bits bits({sequence.begin(), sequence.end()}, 8 * sequence.size() - 1 - std::countr_zero(sequence.back()));
    bits.skip(4);
    if (!bits.flag() && bits.flag()) {  // not that of a still picture, with times
        bits.skip(65);
    }
    return !bits.hasEnded();
}

bool areAv1UnitsBounded(std::span<const uint8_t> units) {
    while (!units.empty()) {
        constexpr int kSequence = 1;
        const int kind = units[0] >> 3 & 15;
        const bool hasSize = (units[0] & 2) != 0;
        size_t header = (units[0] & 4) != 0 ? 2 : 1;
        uint64_t size = 0;
        bool isSizeDue = hasSize;
        for (int shift = 0; isSizeDue && shift < 56; shift += 7) {
            const uint8_t byte = header < units.size() ? units[header] : 0;
            size |= uint64_t{byte & 127U} << shift;
            isSizeDue = (byte & 128) != 0;
            ++header;
        }
        if (isSizeDue || header > units.size() || size > units.size() - header) {
            return true;  // it is read no further
        }
        size = hasSize ? size : units.size() - header;
        if (kind == kSequence) {
            return isAv1SequenceBounded(units.subspan(header, size));
        }
        units = units.subspan(header + size);
    }
    return true;
}

}  // namespace

bool areCountsBounded(int codecId, std::span<const uint8_t> description) {
    if (codecId == AV_CODEC_ID_AV1) {
        return description.empty() || (description[0] & 128) != 0 || areAv1UnitsBounded(description);
    }
    const bool isRecord = !description.empty() && description[0] != 0;
    return isRecord || areSetsBounded(codecId, description);
}

}  // namespace kelp
