#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <utility>
#include <vector>

#include "decode/audio_output_spec.h"
#include "input/loop_turn.h"

namespace kelp {

class AudioFrameInfo;

// Makes the sound of a loop's turns one that goes on: cut to the sample at both ends of each turn, with silence where
// some is missing, and without a click. Where the wave doesn't go on by itself, the difference fades within some
// milliseconds.
//
// For one thread. Samples are of the form that the output is specified in; of another form than 16 bits nothing is
// changed.
class LoopSound {
public:
    using Output = std::function<void(std::shared_ptr<AudioFrameInfo>)>;

    // What comes out goes to `output`.
    explicit LoopSound(Output output) : output_(std::move(output)) {}

    void setSpec(AudioOutputSpec spec) { spec_ = spec; }

    // The frames from here on are of `turn`, and follow those of the turn before. Of what is missing there, what lies
    // before `shownMs` on the line of playback has gone by.
    void follow(std::shared_ptr<const LoopTurn> turn, int64_t shownMs = -1);
    // The turn is this one: the loop has changed.
    void setTurn(std::shared_ptr<const LoopTurn> turn) { turn_ = std::move(turn); }
    // The frames from here on don't follow.
    void reset();
    void take(std::shared_ptr<AudioFrameInfo> frame);

private:
    // A sample's place on the line of playback.
    int64_t placeOf(int64_t us) const;
    // Where `frame` begins.
    int64_t beginOf(const AudioFrameInfo& frame) const;
    bool canCut() const { return spec_.sampleFormat == 1 && spec_.channels > 0 && spec_.sampleRate > 0; }
    // Silence up to `place`, or nothing if more than `seconds` are missing.
    void fillTo(int64_t place, int64_t seconds);
    // The same at the seam of two turns, where no sound leads over to what comes.
    void fillSeam(int64_t place);
    void join(short* samples, int64_t count);

    static constexpr int64_t kUnknown = std::numeric_limits<int64_t>::min();

    const Output output_;
    AudioOutputSpec spec_;
    std::shared_ptr<const LoopTurn> turn_;
    int64_t next_ = kUnknown;  // the place behind the frame before, as it came
    int64_t done_ = kUnknown;  // behind the last sample that went out
    bool isSeam_ = false;      // nothing of the turn has gone out yet
    int64_t shown_ = kUnknown;

    std::vector<int> last_;     // for each channel the last sample that went out; empty for none
    std::vector<int> offsets_;  // and what is added to the first that is joined
    bool isJoinDue_ = false;
    int64_t joinLeft_ = 0;                     // samples until that has faded
    std::shared_ptr<AudioFrameInfo> pattern_;  // for silence: where buffers come from; without one of its own
};

}  // namespace kelp
