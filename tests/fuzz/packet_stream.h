#pragma once

#include <memory>
#include <vector>

#include "fuzz/fuzz_target.h"
#include "input/media_packet.h"

extern "C" {
#include <libavcodec/codec_par.h>
}

namespace kelp::test {

// A stream's parameters and packets as bytes. The corpus has real ones.
//
//   codec type, pixel or sample format: one byte each
//   width or sample rate: 4 bytes; height or channels: 2
//   size of the extra data: 2; the extra data
//   then packets: flags 1, step of time in milliseconds 1, size 2, bytes
struct StreamHead {
    uint8_t codec = 0;
    uint8_t format = 0;
    uint32_t first = 0;
    uint16_t second = 0;
    std::vector<uint8_t> extraData;
};

inline constexpr uint8_t kKeyPacket = 1;
inline constexpr uint8_t kEndPacket = 2;
inline constexpr uint8_t kFlushPacket = 4;

StreamHead takeHead(FuzzInput& input);

struct FreeParameters {
    void operator()(AVCodecParameters* parameters) const;
};
using ParametersPtr = std::unique_ptr<AVCodecParameters, FreeParameters>;

ParametersPtr makeParameters(const StreamHead& head, AVMediaType type, int codecId);

// The next packet; `ptsMs` moves on.
template <class Packet>
std::unique_ptr<Packet> takePacket(FuzzInput& input, int64_t& ptsMs, uint8_t& flags) {
    auto packet = std::make_unique<Packet>();
    flags = input.byte();
    ptsMs += static_cast<int8_t>(input.byte());
    const size_t size = input.take<uint16_t>();
    packet->pts = ptsMs;
    packet->dts = ptsMs;
    packet->duration = 40;
    packet->timeBaseDen = 1000;
    packet->flags = flags & kKeyPacket;
    packet->flush = (flags & kFlushPacket) != 0;
    if ((flags & (kEndPacket | kFlushPacket)) == 0) {
        // Of its own size, so that a byte taken behind it is seen where that can be seen.
        packet->size = static_cast<int>(size < input.left() ? size : input.left());
        packet->data = new unsigned char[static_cast<size_t>(packet->size)];
        input.take(packet->data, static_cast<size_t>(packet->size));
    }
    return packet;
}

}  // namespace kelp::test
