#pragma once

#include <cstdint>

namespace kelp {

// What waits for the decoders.
struct WaitingPackets {
    int64_t longestMs = 0;  // of the stream that reaches farthest: another one may be sparse, or over
    int64_t bytes = 0;      // of all streams
};

// How far a source is read ahead: so many packets, or so much time. A value; the reader's thread asks.
class ReadAhead {
public:
    static constexpr int kMaxPackets = 200;
    static constexpr int64_t kMaxBytes = 64 << 20;

    // By the number of packets.
    ReadAhead() = default;
    // By the time that waits, if `ms` is more than 0, and by the memory that it takes.
    explicit ReadAhead(int64_t ms) : ms_(ms) {}

    bool isByTime() const { return ms_ > 0; }

    // Nothing is read while this holds, with `packets` in all queues. `waiting` is looked at by time alone.
    bool isEnough(int packets, const WaitingPackets& waiting) const {
        return isByTime() ? waiting.longestMs >= ms_ || waiting.bytes >= kMaxBytes : packets >= kMaxPackets;
    }

    // With so many left of `packets` that were enough, reading goes on at once; before, it may rest.
    int few(int packets) const { return isByTime() ? packets / 2 : kMaxPackets / 2; }

private:
    int64_t ms_ = 0;
};

}  // namespace kelp
