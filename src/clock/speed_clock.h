#pragma once

#include <cstdint>
#include <mutex>

namespace kelp {

// A time that runs at a speed, or stands. All times are microseconds, `nowUs` the steady clock's.
// Any thread may call any operation; a reading is never put together of an old and a new state.
class SpeedClock {
public:
    // Reads `timeUs` at `nowUs`, which may be some time ago. What runs goes on, and what stands stays.
    void set(int64_t timeUs, int64_t nowUs);

    void run(int64_t nowUs);
    void stand(int64_t nowUs);

    // 1 is the steady clock's pace; from `nowUs` on, without a jump.
    void setSpeed(double speed, int64_t nowUs);
    double speed() const;

    int64_t read(int64_t nowUs) const;

private:
    int64_t readLocked(int64_t nowUs) const;

    mutable std::mutex mutex_;  // a leaf; guards all that follows
    int64_t timeUs_ = 0;        // the reading at atUs_
    int64_t atUs_ = 0;
    double speed_ = 1;
    bool isRunning_ = true;
};

// What a host may set for a speed, as one that time can go by: forward, and never still.
double usableSpeed(double speed);

}  // namespace kelp
