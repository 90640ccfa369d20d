#include "present/seek_landing.h"

#include <algorithm>

#include "clock/wrapping_math.h"
#include "decode/decoded_frame.h"

namespace kelp {

int64_t SeekLanding::limitMs(int64_t lastMs) const {
    return rule_ == SeekRule::Standard ? std::min<int64_t>(targetMs_, lastMs) : targetMs_;
}

bool SeekLanding::reaches(const DecodedFrame& frame, int64_t timeMs) {
    return frame.pts == timeMs || wrappingSubtract(wrappingAdd(frame.pts, frame.duration), 1) >= timeMs;
}

SeekLanding::Verdict SeekLanding::judge(const DecodedFrame& front, Behind behind, int64_t limitMs) const {
    if (rule_ == SeekRule::Standard) {
        return reaches(front, limitMs) ? Verdict::Land : Verdict::Skip;
    }
    if (front.pts >= limitMs || front.lastsToMs >= limitMs || behind == Behind::Nothing) {
        return Verdict::Land;
    }
    return behind == Behind::AFrame ? Verdict::Skip : Verdict::Wait;
}

void SeekLanding::land(const DecodedFrame& frame) {
    isRunning_ = false;
    landedMs_ = rule_ == SeekRule::Exact ? frame.pts : kNone;
}

bool SeekLanding::isLanded(const DecodedFrame& frame) const {
    return !isRunning_ && landedMs_ != kNone && landedMs_ == frame.pts;
}

int64_t SeekLanding::startOf(const DecodedFrame& frame) const {
    return isLanded(frame) ? std::max<int64_t>(frame.pts, targetMs_) : frame.pts;
}

}  // namespace kelp
