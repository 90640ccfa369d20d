#pragma once

namespace kelp {

// Hears when playback stands because a source over a network doesn't come fast enough, see the option "rebuffer": the
// host implements it and hands it to `setStallObserver` of a player. The object stays the host's.
//
// A playback that stands is no paused one: picture, sound and the player's clocks hold, but `pause`, `resume`, `seek`,
// `setSpeed` and `stop` do what they always do, and the player's state doesn't change. Each onStalled is followed by
// one onStallEnded, also where a `stop` or a restart ends it; between them comes onBuffering, at once and whenever the
// percentage changes. Where a clock of the host's is followed playback never stands, as that clock would run on.
//
// All operations are called on the player's worker thread, in their order among the events of the player's observer,
// whose rules are theirs as well: every operation of the player may be called from here but a TarnPlayer's `destroy`.
class StallObserver {
public:
    // Playback stands.
    virtual void onStalled() = 0;

    // So much film has been read ahead of what is shown, in milliseconds, and as a part of what is waited for, 0 to
    // 100. It falls when a seek goes elsewhere.
    virtual void onBuffering(int waitingMs, int percent) = 0;

    // Playback goes on: enough is there, the source is at its end or can't be read any further, or playback is stopped.
    virtual void onStallEnded() = 0;

protected:
    // Not virtual: players never destroy it.
    ~StallObserver() = default;
};

}  // namespace kelp
