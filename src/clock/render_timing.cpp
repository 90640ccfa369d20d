#include "clock/render_timing.h"

#include "clock/timestamp_extrapolator.h"
#include "clock/wrapping_math.h"
#include "runtime/kelp_time.h"

namespace kelp {

constexpr int64_t kRenderDelayMs = 10;

int64_t RenderTiming::renderTime(int64_t timestampMs) {
    const int64_t localTimeMs = extrapolator_->extrapolateLocalTimeMs(timestampMs);
    if (localTimeMs < 0) {
        return -1;
    }
    return wrappingAdd(localTimeMs, wrappingAdd(decoderTimeMs_.load(std::memory_order_relaxed), kRenderDelayMs));
}

void RenderTiming::reset() {
    extrapolator_->reset(KelpTime::getTimeMs());
    setDecoderTimeMs(0);
}

}  // namespace kelp
