#pragma once

#include <cstdint>
#include <optional>

namespace kelp {

// How long the first frame of a stream waits, after the start or a seek, where playback has begun with an earlier frame
// of another stream. Until then the position goes on by the wall clock, but not in a pause. One that isn't wanted lets
// nothing wait. Knows no thread; all times are milliseconds.
class LateStart {
public:
    explicit LateStart(bool isWanted = false) : isWanted_(isWanted) {}

    bool isWanted() const { return isWanted_; }

    // Playback begins at `positionMs`.
    void begin(int64_t positionMs);
    // It begins anew there, at `nowMs`, behind a seek.
    void beginAnew(int64_t positionMs, int64_t nowMs);

    // Before the first look. The other stream may have begun meanwhile, and have come to `positionMs`. Behind a seek it
    // may also not have heard of that yet: a position that can't have been played since then is none.
    bool isUnseen() const { return isWanted_ && !isOver_ && !isLate_; }
    void comeTo(int64_t positionMs, int64_t nowMs);

    // A pause was slept through: the time since the last look doesn't count.
    void hold() { lookedMs_.reset(); }

    // How long the frame at `pts` has to wait; at most 0 if it is due, which all that follow it are, too.
    int64_t remaining(int64_t pts, int64_t nowMs, bool isPaused);

    // A frame is shown all the same.
    void end() { isOver_ = true; }

    // While a frame waits.
    int64_t positionMs() const { return positionMs_; }

private:
    bool isWanted_;
    bool isOver_ = false;  // a frame was due
    bool isLate_ = false;  // a frame waits
    int64_t positionMs_ = 0;
    std::optional<int64_t> lookedMs_;  // when the position was that
    std::optional<int64_t> anewMs_;    // when playback began anew there; nothing at the start
};

}  // namespace kelp
