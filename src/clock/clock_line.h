#pragma once

#include <cstdint>
#include <optional>

namespace kelp {

// The straight line along which a clock runs that tells whole milliseconds: its steps are smoothed, and its speed is
// found. For one thread at a time.
//
// Recursive least squares with exponential forgetting, of two parameters, the present time and the speed (Haykin,
// Adaptive Filter Theory, chapter on the RLS algorithm). A reading far off the line begins another one: the clock was
// set, paused, or got another speed.
class ClockLine {
public:
    // Forgets all, the speed as well.
    void restart() { *this = ClockLine(); }

    // A reading, at `nowUs` of the steady clock.
    void add(int64_t readingMs, int64_t nowUs);

    // Where the line stands at the last reading, in microseconds.
    int64_t timeUs() const;
    // 1 is the wall clock's pace; 0 for a clock that stands, or runs backwards. Nothing before two readings.
    std::optional<double> speed() const;

private:
    double slope() const;
    // Of the line from the last reading, at the last reading, in milliseconds.
    double offsetMs() const;

    // Sums over the readings, a weight for each that fades away: of 1, the times, their squares, the readings and their
    // products with the times. Times and readings are milliseconds, and count from the last ones.
    double sum_ = 0;
    double sumTimes_ = 0;
    double sumSquares_ = 0;
    double sumReadings_ = 0;
    double sumProducts_ = 0;
    double speedBefore_ = 1;  // of the line before this one
    bool isSpeedKnown_ = false;
    int readings_ = 0;    // of this line; 2 stands for more
    int64_t lastMs_ = 0;  // the last reading
    int64_t lastUs_ = 0;  // when that was
};

}  // namespace kelp
