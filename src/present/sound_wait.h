#pragma once

#include <cstdint>
#include <optional>

namespace kelp {

// Whether live pictures wait until their sound is heard, and what that costs them.
//
// They don't if the sound comes too late for it. That is decided by the sound of some time, with a band between the
// limits, so that pictures are even with a sound that is about as late as they may wait. One that waits does so for
// 100 ms at most, from when it could have been seen.
//
// Knows no thread. Times are microseconds of the steady clock.
class SoundWait {
public:
    // A picture that could be seen from `readyUs` on comes to its turn, and its sound is heard at `heardUs`: nothing
    // for no sound.
    void begin(int64_t readyUs, std::optional<int64_t> heardUs, int64_t nowUs);

    // For how long it is to wait, its sound being heard at `heardUs`; 0 or less if it isn't to.
    int64_t leftUs(std::optional<int64_t> heardUs, int64_t nowUs);

    // It is shown. How much later than if none had waited for its sound: what keeps it for another reason, and would
    // have done so anyway, isn't counted.
    int64_t end(int64_t nowUs);

    // The pictures so far delay none of those to come.
    void forget();

private:
    void decide(std::optional<int64_t> heardUs, int64_t nowUs);

    std::optional<bool> waits_;  // nothing without sound
    int64_t agreedUs_ = 0;       // when a sound was for that last
    int64_t readyUs_ = 0;        // of the present picture
    int64_t beginUs_ = 0;
    int64_t freeUs_ = 0;      // when it would have been shown if none had waited
    bool hasWaited_ = false;  // it, for its sound
    int64_t delayUs_ = 0;     // of the picture before, by sound
};

}  // namespace kelp
