#pragma once

#include <cstdint>
#include <limits>
#include <mutex>
#include <optional>

#include "input/loop_turn.h"

namespace kelp {

// The loop that the host wants, the one that is played, and how much of what was read before isn't of that. Knows no
// thread and calls nobody; its mutex is a leaf.
class WantedLoop {
public:
    // What is known of a film; 0 for unknown.
    struct Film {
        bool canGoBack;
        int64_t durationMs;
        int fps;
    };
    // Why `loop` can't be played, as far as that is known; null if it can.
    static const char* obstacleTo(const Loop& loop, const std::optional<Film>& film);

    // For the playbacks to come; `play` has it played by one that runs.
    void want(std::optional<Loop> loop);
    std::optional<Loop> wanted() const;
    // The one that is wanted is played from here on.
    std::optional<Loop> play();
    // Nothing is played any more, and what was read is gone.
    void stop();

    // What is at the loop's end or behind it is at its beginning: for a load, and for a seek, in a loop that goes on.
    int clampLoad(int timeMs) const;
    int clampSeek(int timeMs, bool isGivenUp) const;

    // What was read to be played before `lineMs`, on the line of playback, isn't of the loop that is played.
    void noteUnlooped(int64_t lineMs);
    bool isAnyUnlooped() const;
    // Whether what plays at `lineMs` is such. No more is, either way: it is read anew, or has been played.
    bool takeUnlooped(int64_t lineMs);
    // All is read anew.
    void dropUnlooped();

private:
    static constexpr int64_t kNone = std::numeric_limits<int64_t>::min();

    mutable std::mutex mutex_;
    std::optional<Loop> wanted_;
    std::optional<Loop> played_;
    int64_t unloopedToMs_ = kNone;  // on the line
};

}  // namespace kelp
