#pragma once

#include <cstdint>
#include <vector>

namespace kelp::test {

// Steers the fakes of KelpTime and Rest that test programs link in place of the real ones. All operations may be called
// from any thread.
//
// Two modes. In the automatic mode, the default, a sleep returns at once and moves the clock on by what was asked, so
// a loop that one test thread drives runs through without waiting. In the manual mode a sleeper stands still until the
// test moves the clock past its wake-up time, so threads can be led step by step; call setManual(false) or reset
// before a sleeping thread is joined.
//
// The timer thread of a Worker sleeps from one timer to the next and would run away with the automatic clock. In both
// modes it waits until others, or the test, have moved the clock.
//
// A rest is a sleep that its predicate ends without the clock being moved; one that is over before it began is none. No
// clock ends one that lasts forever, nor does it move the automatic one. A wait for other threads' work is a rest that
// isn't counted as slept; in the automatic mode it takes its real time, and moves no clock.
//
// As with the real class only whole milliseconds are slept, and a sleep of less than one is a yield in both modes; a
// rest has its microseconds.
class FakeTime {
public:
    // Back to the automatic mode at `nowMs`, with nobody asleep counted and no sleeps recorded. Threads that still
    // sleep are released.
    static void reset(int64_t nowMs = 1'000'000);

    // Switches the mode. Leaving the manual mode releases all sleepers; each moves the clock to its wake-up time at
    // the least.
    static void setManual(bool manual);

    // Sets the clock, or moves it on, and wakes the sleepers whose time has come.
    static void setNowMs(int64_t nowMs);
    static void advanceMs(int64_t ms);
    static void advanceUs(int64_t us);
    static int64_t nowMs();
    static int64_t nowUs();

    // Sets the system's date forward, or back, until the next reset: the wall clock alone, under which what sleeps
    // isn't moved.
    static void setDateBy(int64_t ms);

    // Waits in real time, up to `realTimeoutMs`, until `count` threads or more sleep at once. Whether they did. A
    // thread whose wake-up time has come is awake, even if it hasn't run yet.
    static bool waitForSleepers(int count, int realTimeoutMs = 5000);

    // Manual mode: lets `ms` pass in the order of events. Again and again it waits until `threads` threads sleep, and
    // moves the clock to the earliest wake-up time; at the end to `ms` from the start, when the last of them sleep
    // again. False if a wait took longer than `realTimeoutMs` in real time.
    static bool runFor(int64_t ms, int threads, int realTimeoutMs = 5000);

    // What was slept for since `reset`: milliseconds in all, the number of sleeps, yields included, and the first ten
    // thousand of them in whole milliseconds, in the order in which they began.
    static int64_t sleptMs();
    static int64_t sleepCount();
    static std::vector<int> sleeps();
};

}  // namespace kelp::test
