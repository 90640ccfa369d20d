#pragma once

namespace kelp {

// Which frame a seek ends with, and how strictly it is held apart from what comes before and after it.
enum class SeekRule {
    // The first frame that reaches the target by its duration, which a decoder may only guess. Any first frame ends the
    // running seek, so does the end of the film; a replay that was overtaken waits its turn.
    Standard,
    // The frame whose time holds the target: the last one at or before it. A stage's word ends a seek only if the seek
    // has passed that stage, and the newest request is the one that counts.
    Exact,
};

}  // namespace kelp
