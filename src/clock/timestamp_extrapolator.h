#pragma once

#include <atomic>
#include <cstdint>

namespace kelp {

// Learns how a live sender's clock relates to the local one, from the arrival of its packets, and tells at which local
// time a time stamp belongs.
//
// A recursive least-squares fit of two parameters, the sender's ticks per local millisecond and its offset, with a
// detector for lasting changes of the delay. A source that isn't live never feeds it, and it has no answer then.
//
// `update` runs on the read thread, the extrapolate operations on the video play thread, `init` and `reset` where the
// read thread doesn't run. There is no lock: a reader between two stores of an update may see one new estimate and one
// old one, an error of one picture's time that is accepted.
class TimestampExtrapolator {
public:
    TimestampExtrapolator() { reset(0); }
    virtual ~TimestampExtrapolator() = default;

    // Stores the stream's ticks per second; to be called before the first `update`. Forgets nothing.
    void init(int64_t frequency) { frequency_.store(frequency, std::memory_order_relaxed); }

    // Forgets everything but the frequency; `nowMs` becomes the origin of local time.
    void reset(int64_t nowMs);

    // Feeds the time stamp of a packet, in ticks, that arrived now.
    void update(int64_t timestamp);

    // The local time, in milliseconds, at which `timestamp`, in ticks, belongs; -1 if it isn't known.
    int64_t extrapolateLocalTime(int64_t timestamp);

    // The same for a time stamp in milliseconds.
    int64_t extrapolateLocalTimeMs(int64_t timestampMs);

    // How far the last packet came behind the time at which it belongs, below 0 for before it, and the mean of the
    // distance; in milliseconds. Any thread.
    double delayMs() const { return delayMs_.load(std::memory_order_relaxed); }
    double jitterMs() const { return jitterMs_.load(std::memory_order_relaxed); }

private:
    // Feeds the detector with how far, in ticks, a time stamp lies off the line; whether the delay has changed.
    bool DelayChangeDetection(double error);

    // Of an update: how far, in ticks, the time stamp lies ahead of the line.
    void noteDelay(double residual);

    // A jump of the time stamps, or a long silence, makes the fit worthless.
    bool needsReset(int64_t timestamp, int64_t nowMs) const;

    std::atomic<int64_t> frequency_{0};           // ticks per second
    std::atomic<double> w0_;                      // slope: ticks per local millisecond
    std::atomic<double> w1_;                      // offset, ticks
    std::atomic<int64_t> startMs_;                // origin of local time
    std::atomic<int64_t> prevMs_;                 // local time of the last accepted update
    std::atomic<int64_t> firstTimestamp_{kNone};  // ticks; kNone before the first one
    std::atomic<int64_t> prevTimestamp_{kNone};   // last one used, ticks; kNone before the first one
    std::atomic<double> delayMs_;
    std::atomic<double> jitterMs_;
    std::atomic<unsigned int> packetCount_;  // updates so far, counted up to the start-up delay

    // Of `update` and `reset` alone.
    double p00_, p01_, p10_, p11_;   // covariance; p11_ is huge while the offset is unknown
    double detectorAccumulatorPos_;  // positive errors above the drift, summed, ticks
    double detectorAccumulatorNeg_;  // negative ones, 0 or less

    static constexpr int64_t kNone = -1;
};

}  // namespace kelp
