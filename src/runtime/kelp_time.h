#pragma once

#include <cstdint>

namespace kelp {

// The one source of time and of sleep in the library. It holds no state and may be called from any thread.
//
// The standard time is the wall clock, not a monotonic one: setting the system's time moves every deadline. Tests link
// a fake of this class and step it.
class KelpTime {
public:
    virtual ~KelpTime() = default;

    // Microseconds, and milliseconds, since 1970-01-01 00:00:00 UTC.
    static int64_t getTimeUs();
    static int64_t getTimeMs();

    // Microseconds of the steady clock, from a moment of its own: it runs on evenly when the system's time is set. What
    // is exact goes by it.
    static int64_t getSteadyUs();

    // Sleep for `ms` milliseconds, up to 2147483, or for the whole milliseconds in `us`; less than one is a yield.
    static void sleepMs(int ms);
    static void sleepUs(int us);
};

}  // namespace kelp
