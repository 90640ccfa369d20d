#pragma once

#include <atomic>
#include <cstdint>

namespace kelp {

class TimestampExtrapolator;

// Tells at which local time a picture of a live source is to be shown: when its time stamp belongs, plus the time that
// decoding takes, plus a fixed delay.
//
// `renderTime` runs on the video play thread, `setDecoderTimeMs` on the thread that hands over decoded frames, `reset`
// on the control side after both have ended.
class RenderTiming {
public:
    // `extrapolator` isn't owned and must outlive this object.
    explicit RenderTiming(TimestampExtrapolator* extrapolator) : extrapolator_(extrapolator) {}

    // The local time in milliseconds for a picture of `timestampMs`; -1 if it isn't known.
    int64_t renderTime(int64_t timestampMs);

    // The present average decode time in milliseconds.
    void setDecoderTimeMs(int64_t ms) { decoderTimeMs_.store(ms, std::memory_order_relaxed); }

    // Forgets the source, before another one.
    void reset();

private:
    TimestampExtrapolator* const extrapolator_;
    std::atomic<int64_t> decoderTimeMs_{0};  // average, milliseconds
};

}  // namespace kelp
