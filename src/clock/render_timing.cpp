#include "clock/render_timing.h"

#include "clock/timestamp_extrapolator.h"
#include "clock/wrapping_math.h"
#include "runtime/kelp_time.h"

namespace kelp {

namespace {

constexpr int64_t kRenderDelayMs = 10;

}  // namespace

RenderTiming::RenderTiming(TimestampExtrapolator* extrapolator) : extrapolator_(extrapolator) {
}

int64_t RenderTiming::renderTime(int64_t timestampMs) {
    const int64_t localTimeMs = extrapolator_->extrapolateLocalTimeMs(timestampMs);
    if (localTimeMs < 0) {
        return -1;
    }
    return wrappingAdd(localTimeMs, wrappingAdd(decoderTimeMs_.load(std::memory_order_relaxed), kRenderDelayMs));
}

void RenderTiming::setDecoderTimeMs(int64_t ms) {
    decoderTimeMs_.store(ms, std::memory_order_relaxed);
}

void RenderTiming::reset() {
    extrapolator_->reset(KelpTime::getTimeMs());
    decoderTimeMs_.store(0, std::memory_order_relaxed);
}

}  // namespace kelp
