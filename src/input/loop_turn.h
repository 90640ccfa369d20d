#pragma once

#include <cstdint>
#include <limits>

namespace kelp {

// What is played again and again: from `startMs` to right before `endMs` of the film.
struct Loop {
    static constexpr int64_t kFilmEnd = std::numeric_limits<int64_t>::max();

    int64_t startMs = 0;
    int64_t endMs = kFilmEnd;

    bool operator==(const Loop&) const = default;
};

// One turn of a loop. Its packets keep their times in the film; behind the decoders time goes on evenly from turn to
// turn, on a line that is ahead of the film by `shiftUs`. Immutable, and shared by the packets of the turn.
//
// A length needn't be one of whole milliseconds: sound goes by the exact times, pictures by the nearest millisecond.
struct LoopTurn {
    static constexpr int64_t kOpen = std::numeric_limits<int64_t>::max();

    int64_t shiftUs = 0;
    int64_t shiftMs = 0;
    // What goes before is needed by decoders alone; below 0 where all is played that comes: before the first turn, and
    // behind a seek.
    int64_t fromUs = -1;
    int64_t toUs = kOpen;  // nothing is played from here on

    bool isEntered() const { return fromUs >= 0; }
    int64_t lineFromUs() const { return fromUs + shiftUs; }
    int64_t lineFromMs() const { return fromUs / 1000 + shiftMs; }

    // Whether what begins at `lineMs` leads to the turn.
    bool isAhead(int64_t lineMs) const { return isEntered() && lineMs < lineFromMs(); }
    // Whether the picture at `lineMs` is one of the turn's.
    bool holds(int64_t lineMs) const { return !isAhead(lineMs) && (toUs == kOpen || (lineMs - shiftMs) * 1000 < toUs); }
};

}  // namespace kelp
