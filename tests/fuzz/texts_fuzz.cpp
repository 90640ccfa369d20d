// The texts of packets and of what is known of a stream, against texts that are put together another way.

#include <cinttypes>
#include <limits>

#include "fuzz/fuzz_target.h"
#include "input/media_packet.h"
#include "input/stream_info.h"

using kelp::test::FuzzInput;
using kelp::test::require;

namespace {

// In 64 bits, which a damaged time stamp can exceed.
int64_t milliseconds(int64_t ticks, int64_t num, int64_t den) {
    const auto product = static_cast<int64_t>(static_cast<uint64_t>(num) * static_cast<uint64_t>(ticks) * 1000U);
    return product == std::numeric_limits<int64_t>::min() && den == -1 ? product : product / den;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput input(data, size);
    kelp::VideoPacket packet;
    packet.size = input.take<int>();
    packet.flags = input.take<int>();
    packet.pos = input.take<int64_t>();
    packet.dts = input.take<int64_t>();
    packet.pts = input.take<int64_t>();
    packet.duration = input.take<int64_t>();
    packet.timeBaseNum = input.take<int64_t>();
    // Small ones too, with 0 and -1 among them.
    packet.timeBaseDen = input.byte() % 4 == 0 ? static_cast<int8_t>(input.byte()) % 3 : input.take<int64_t>();

    char text[1024];
    int length = std::snprintf(text, sizeof(text),
                               "{ size:%d, pos:%" PRId64 ", dts:%" PRId64 ", pts:%" PRId64 ", duration:%" PRId64 ", ",
                               packet.size, packet.pos, packet.dts, packet.pts, packet.duration);
    if (packet.timeBaseDen != 0) {
        length += std::snprintf(text + length, sizeof(text) - static_cast<size_t>(length),
                                "dts_ms:%" PRId64 ", pts_ms:%" PRId64 ", duration_ms:%" PRId64 ", ",
                                milliseconds(packet.dts, packet.timeBaseNum, packet.timeBaseDen),
                                milliseconds(packet.pts, packet.timeBaseNum, packet.timeBaseDen),
                                milliseconds(packet.duration, packet.timeBaseNum, packet.timeBaseDen));
    }
    std::snprintf(text + length, sizeof(text) - static_cast<size_t>(length),
                  "time_base:(%" PRId64 ":%" PRId64 "), flags:%d }", packet.timeBaseNum, packet.timeBaseDen,
                  packet.flags);
    require(packet.toString() == text, packet.toString() + " is " + text);

    kelp::StreamInfo info;
    info.start_time = input.take<int64_t>();
    info.duration = input.take<int64_t>();
    const uint8_t bits = input.byte();
    info.has_video = (bits & 1U) != 0;
    info.has_audio = (bits & 2U) != 0;
    info.is_live = (bits & 4U) != 0;
    info.seekable = (bits & 8U) != 0;
    std::snprintf(text, sizeof(text), "{ start_time:%" PRId64 ", has_video:%d, has_audio:%d, seekable:%d,  }",
                  info.start_time, info.has_video, info.has_audio, info.seekable);
    require(info.toString() == text, info.toString() + " is " + text);
    return 0;
}
