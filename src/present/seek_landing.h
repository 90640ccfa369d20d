#pragma once

#include <cstdint>
#include <limits>

#include "runtime/seek_rule.h"

namespace kelp {

class DecodedFrame;

// With which of the frames that come a seek ends. Knows no thread; all times are milliseconds.
//
// - Standard: the first one whose duration, as it is known by then, reaches the target, or the last time that is known
//   of the stream, if that is lower.
// - Exact: the last one at or before the target, or the first one if all are behind it. A frame waits until it is known
//   that no other begins up to the target: it says so itself, or one behind it is there, or there is no more.
class SeekLanding {
public:
    enum class Verdict { Skip, Wait, Land };
    enum class Behind { Unknown, AFrame, Nothing };  // a frame

    SeekLanding() = default;  // no seek
    SeekLanding(SeekRule rule, int targetMs) : rule_(rule), targetMs_(targetMs), isRunning_(true) {}

    bool isRunning() const { return isRunning_; }
    int targetMs() const { return targetMs_; }

    // The time to be reached; `lastMs` is the last one known of the stream.
    int64_t limitMs(int64_t lastMs) const;
    // What becomes of the front frame.
    Verdict judge(const DecodedFrame& front, Behind behind, int64_t limitMs) const;

    // The seek has ended in this frame.
    void land(const DecodedFrame& frame);
    // An exact seek has ended in it: it is shown in any case.
    bool isLanded(const DecodedFrame& frame) const;
    // The time from which on it is shown: its own, or the target if that seek's lies within it.
    int64_t startOf(const DecodedFrame& frame) const;

    // Whether `timeMs` lies within the frame, by its duration, or before it.
    static bool reaches(const DecodedFrame& frame, int64_t timeMs);

    // Whether the front frame may leave the queue when one was presented. Exact: only that one leaves, and not while a
    // seek waits that it may be the one for.
    static bool mayLeave(SeekRule rule, bool isPresented, bool isAwaited) {
        return rule == SeekRule::Standard || (isPresented && !isAwaited);
    }

private:
    static constexpr int64_t kNone = std::numeric_limits<int64_t>::min();

    SeekRule rule_ = SeekRule::Standard;
    int targetMs_ = -1;
    bool isRunning_ = false;
    int64_t landedMs_ = kNone;  // the time of the frame; Exact alone
};

}  // namespace kelp
