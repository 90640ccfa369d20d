#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace kelp {

// When packets went to a decoder, by the packets' times, until their pictures have come out. Keeps its memory, so that
// a decoder in its stride takes none for a packet.
class SendTimes {
public:
    // The packet of `pts` milliseconds is sent at `nowMs`. Forgets all others first where they have become too many, or
    // too old: pictures that never come out must not pile up.
    void put(int64_t pts, int64_t nowMs);

    // When that packet was sent, once; none if it isn't known.
    std::optional<int64_t> take(int64_t pts);

    void clear();

private:
    struct Entry {
        int64_t pts;
        int64_t sentMs;
    };

    // The first entry that isn't before `pts`.
    std::vector<Entry>::iterator find(int64_t pts);

    std::vector<Entry> entries_;  // in order of time, each time once
};

}  // namespace kelp
