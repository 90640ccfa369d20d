#pragma once

#include <atomic>
#include <random>
#include <string_view>

#include "runtime/playback_options.h"

namespace kelp {

// How long a TarnPlayer waits before it restarts a source that failed: always for the interval that the host has set,
// or, where the end of a live source is a failure, longer from one attempt to the next, up to ten times the interval,
// and by a little chance less than that: a hundred players that have lost one server don't come back at one moment. By
// that second rule the last picture also stands meanwhile.
//
// All of it is under the player's mutex, but for `shown`, which any thread may call.
class RetryPace {
public:
    // A text of the host's; for the loads to come, and any key.
    void setOption(std::string_view key, std::string_view value);

    // The host loads a source, which chooses the rule.
    void begin();

    // The source is there: something of it was seen or heard.
    void shown() { failures_ = 0; }

    // Whether a restart leaves the last picture on the windows.
    bool keepsPicture() const { return grows_; }

    // The wait after one more failure, in milliseconds, from the host's interval.
    unsigned int nextMs(unsigned int intervalMs);

private:
    PlaybackOptions options_;
    bool grows_ = false;
    std::atomic<int> failures_{0};  // since something was shown, or the load
    std::minstd_rand chance_{std::random_device{}()};
};

}  // namespace kelp
