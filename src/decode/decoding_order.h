#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>

namespace kelp {

// The times of a stream whose packets tell no more than their place in the order of decoding: that which is shown first
// gets the first of them, and so on. Where no picture is shown in another place than it was decoded in, each keeps its
// own. No thread and no lock of its own.
class DecodingOrder {
public:
    // A packet was sent to the decoder. One that knows when its picture is shown, by its word or as its time goes back,
    // ends it for good.
    void noteSent(int64_t timeMs, bool isTimedByOrder);

    // Whether all packets were of this kind, and there was one.
    bool isOn() const { return isOn_ && !waiting_.empty(); }

    // The time of the picture that comes out next, whose packet had `ownMs`. At most `reordered` pictures are decoded
    // before one that is shown before them: what waits for longer has given no picture.
    int64_t takeTime(int64_t ownMs, size_t reordered);

    // The decoder has forgotten what was sent.
    void flush();

private:
    bool isOn_ = true;
    int64_t lastMs_ = INT64_MIN;   // of the last packet since a flush
    std::deque<int64_t> waiting_;  // in ms, rising; those that no picture has got yet
};

}  // namespace kelp
