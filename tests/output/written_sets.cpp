#include "output/written_sets.h"

#include <bit>
#include <initializer_list>

namespace kelp::test {

namespace {

class BitWriter {
public:
    explicit BitWriter(Bytes bytes) : bytes_(std::move(bytes)) {}

    BitWriter& put(uint64_t value, int count) {
        for (; count > 0; --count) {
            if (used_++ % 8 == 0) {
                bytes_.push_back(0);
            }
            bytes_.back() |= static_cast<uint8_t>((value >> (count - 1) & 1) << (7 - (used_ - 1) % 8));
        }
        return *this;
    }
    // Exp-Golomb codes.
    BitWriter& codes(std::initializer_list<uint32_t> values) {
        for (const uint32_t value : values) {
            const int bits = std::bit_width(uint64_t{value} + 1);
            put(0, bits - 1).put(uint64_t{value} + 1, bits);
        }
        return *this;
    }
    BitWriter& ones(int count) {
        for (; count > 0; --count) {
            put(1, 1);
        }
        return *this;
    }
    // So many codes of a value.
    BitWriter& repeated(uint32_t value, int count) {
        for (; count > 0; --count) {
            codes({value});
        }
        return *this;
    }
    // With the bytes that keep start codes out of it.
    Bytes bytes() const {
        Bytes escaped{0, 0, 0, 1};
        int zeros = 0;
        for (const uint8_t byte : bytes_) {
            if (zeros >= 2 && byte <= 3) {
                escaped.push_back(3);
                zeros = 0;
            }
            zeros = byte == 0 ? zeros + 1 : 0;
            escaped.push_back(byte);
        }
        return escaped;
    }
    const Bytes& plain() const { return bytes_; }

private:
    Bytes bytes_;
    int used_ = 0;
};

}  // namespace

Bytes operator+(Bytes first, const Bytes& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

Bytes h264Set(uint32_t picturesOfCycle) {
    BitWriter writer({0x67, 100, 0, 30});
    writer.codes({0, 1, 0, 0}).put(0, 2).codes({0, 1}).put(0, 1).codes({0, 0, picturesOfCycle});
    return writer.put(1, 1).bytes();
}

Bytes hevcSet(uint32_t referenceSets, uint32_t references) {
    BitWriter writer({0x42, 0x01});
    writer.put(1, 8).put(0xFFFFFFFFFFFF, 48).put(0xFFFFFFFFFFFF, 48).codes({0, 1, 160, 120}).put(0, 1);
    writer.codes({0, 0, 4}).put(1, 1).codes({4, 2, 0}).codes({0, 3, 0, 3, 0, 0}).put(0, 4).codes({referenceSets});
    if (referenceSets > 0) {
        writer.codes({references, 0});
    }
    for (uint32_t i = 0; i < references && references < 100; ++i) {
        writer.codes({0}).put(1, 1);
    }
    return writer.put(1, 1).bytes();
}

Bytes wholeH264Set(uint32_t picturesOfCycle, uint8_t profile, uint32_t chroma) {
    BitWriter writer({0x67, profile, 0, 30});
    writer.codes({15});
    if (chroma > 0) {
        writer.codes({chroma}).put(1, chroma == 3 ? 1 : 0).codes({2, 2}).ones(2);  // depths; lists follow
        writer.put(1, 1).repeated(1, 16);                                          // one of them all told
        writer.put(1, 1).codes({16});                                              // one that ends at once
        writer.put(0, 1);                                                          // one that isn't told
        writer.put(1, 1).codes({2, 497});                                          // one that ends by going round
        writer.put(0, 2).put(1, 1).repeated(3, 63).codes({5}).put(0, chroma == 3 ? 5 : 1);
    }
    writer.codes({4, 1}).put(1, 1).codes({6, 9, picturesOfCycle});
    return writer.put(1, 1).bytes();
}

Bytes wholeHevcSet(uint32_t references, uint32_t moreLayers, bool isOrderedByLayer, uint32_t sets) {
    BitWriter writer({0x42, 0x01});
    writer.put(5, 4).put(moreLayers, 3).ones(1 + 96);
    for (uint32_t layer = 0; layer < moreLayers; ++layer) {
        writer.put(layer + 1, 2);  // its level, its profile, both
    }
    writer.put(0, moreLayers > 0 ? static_cast<int>(2 * (8 - moreLayers)) : 0);
    for (uint32_t layer = 0; layer < moreLayers; ++layer) {
        writer.ones(((layer + 1) & 2 ? 88 : 0) + ((layer + 1) & 1 ? 8 : 0));
    }
    writer.codes({15, 3}).put(1, 1).codes({160, 120}).put(1, 1).codes({1, 2, 3, 4}).codes({2, 2, 4});
    writer.put(isOrderedByLayer ? 1 : 0, 1);
    for (uint32_t layer = isOrderedByLayer ? 0 : moreLayers; layer <= moreLayers; ++layer) {
        writer.codes({4, 2, 5});
    }
    writer.codes({1, 3, 2, 3, 1, 2}).ones(2);
    for (int list = 0; list < 20; ++list) {
        const int coefficients = list < 6 ? 16 : list < 12 ? 64 : 65;  // the last with their mean
        list % 2 == 0 ? writer.put(1, 1).repeated(2, coefficients) : writer.put(0, 1).codes({1});
    }
    writer.ones(2).put(1, 1).put(0x77, 8).codes({0, 2}).put(1, 1).codes({sets});
    writer.codes({2, 1}).codes({0}).put(1, 1).codes({1}).put(0, 1).codes({0}).put(1, 1);
    writer.ones(2).codes({3}).put(0b1'00'01'1, 6);   // of three pictures and the one between, three
    writer.ones(2).codes({1}).put(0b00'1'00'00, 7);  // and of these one
    for (uint32_t set = 4; set < sets; ++set) {
        writer.put(0, 1).codes({0, 0});
    }
    writer.put(0, 1).codes({0, references});
    for (uint32_t i = 0; i < references && references < 100; ++i) {
        writer.codes({0}).put(1, 1);
    }
    return writer.put(1, 1).bytes();
}

Bytes wholeVvcSet(uint32_t partsLess1) {
    BitWriter writer({0x00, 0x79});
    writer.put(0, 8).put(3, 3).put(1, 2).put(2, 2).put(1, 1);
    writer.ones(18 + 1 + 71).put(5, 8).ones(5).put(0, 1);  // the profile, up to a byte's end
    writer.put(0b101, 3).put(0, 5).ones(2 * 8);
    writer.put(2, 8).ones(2 * 32);
    writer.ones(3).codes({160, 120}).put(1, 1).codes({1, 2, 3, 4}).put(1, 1).codes({partsLess1});
    return writer.put(1, 1).bytes();
}

Bytes vvcSet(uint32_t partsLess1) {
    BitWriter writer({0x00, 0x79});
    writer.put(0, 8).put(0, 3).put(1, 2).put(2, 2).put(1, 1);
    writer.put(0x3FFFF, 18).put(0, 1).put(0, 5).put(0, 8);  // the profile, up to a byte's end
    writer.put(0, 2).codes({160, 120}).put(0, 1).put(1, 1).codes({partsLess1});
    return writer.put(1, 1).bytes();
}

Bytes cutVvcSet() {
    BitWriter writer({0x00, 0x79});
    writer.put(0, 8).put(0, 3).put(1, 2).put(2, 2).put(0, 1).put(0, 2).codes({8, 8});
    return writer.bytes();
}

Bytes av1Sequence(int missingBits) {
    const int bits = 71 - missingBits;
    BitWriter writer({});
    writer.put(1, 6).put(0, bits - 6).put(1, 1);
    Bytes payload = writer.plain();
    return Bytes{0x0A, static_cast<uint8_t>(payload.size())} + payload + Bytes{0x02, 0, 0x02, 0};
}

Bytes hevcFrame() {
    return {0, 0, 0, 1,    0x40, 0x01, 0x0C, 0x01, 0xFF, 0xFF, 0x01, 0x60, 0xFF, 0xFF, 0xFF, 0xFF, 0,
            0, 0, 1, 0x44, 0x01, 0xC1, 0x72, 0xB4, 0x62, 0,    0,    0,    1,    0x26, 0x01, 0xAF, 0x1B};
}

Bytes h264Frame() {
    return {0, 0, 0, 1, 0x68, 0xCE, 0x3C, 0x80, 0, 0, 0, 1, 0x65, 0x88, 0x84, 0x21};
}

}  // namespace kelp::test
