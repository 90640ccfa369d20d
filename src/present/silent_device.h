#pragma once

#include <cstdint>

namespace kelp {

// A device that nobody hears: how long what was handed over to it still plays. All times are microseconds, `nowUs` a
// clock's that may jump: a jump, as any time without a call that is longer than a second, doesn't count.
//
// Knows no thread and waits for nothing.
class SilentDevice {
public:
    // Sound that was handed over before ends at `endUs`. One that should have ended before now has left a hole, as
    // nobody took more: as much is taken at once.
    void begin(int64_t endUs, int64_t nowUs);

    void add(int64_t us, int64_t nowUs);
    void clear(int64_t nowUs);
    // Time stands still in a pause.
    void pause(bool paused, int64_t nowUs);

    // How long what was handed over still plays.
    int64_t leftUs(int64_t nowUs);
    // When it ends, or has ended.
    int64_t endUs() const { return endUs_; }

private:
    void look(int64_t nowUs);

    int64_t endUs_ = 0;   // when the sound that was handed over has been played
    int64_t lastUs_ = 0;  // the last look at the clock
    bool isBehind_ = false;
    bool isPaused_ = false;
};

}  // namespace kelp
