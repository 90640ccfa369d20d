#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>

#include "input/loop_turn.h"

namespace kelp {

// The loop in which an input is read: when a turn has been read, what the next one is, and which time of the film a
// time on the line of playback stands for.
//
// `ask` and the questions about the line come from any thread, under any lock; all else from the one that reads.
class InputLoop {
public:
    // The loop to be read from now on, or none. The newest counts.
    void ask(std::optional<Loop> loop);
    bool isAsked() const { return isAsked_.load(std::memory_order_relaxed); }

    // Whether the line isn't the film's time somewhere.
    bool isBent() const { return isBent_.load(std::memory_order_acquire); }
    int64_t filmMs(int64_t lineMs) const { return isBent() ? lineMs - shiftMs(lineMs) : lineMs; }
    // By how much the line is ahead of the film there.
    int64_t shiftMs(int64_t lineMs) const;
    // Where the turn that is read begins.
    int64_t lastFromMs() const;

    // Takes what was asked for; the turn that is read goes on in it. Whether that is anything else than before.
    bool take();
    // Whether the loop that was taken last has had its end, with nothing in it or no way back. Any thread.
    bool isGivenUp() const { return isGivenUp_.load(std::memory_order_relaxed); }
    bool isOn() const { return loop_.has_value(); }
    const Loop& loop() const { return *loop_; }
    // For the packets that are handed on; null where there was no loop since the last seek.
    const std::shared_ptr<const LoopTurn>& turn() const { return turn_; }

    enum class Stream { Pictures, Sound };
    // A packet that was read, by its time of decoding for pictures, and of showing for sound: whether the turn is over
    // for its stream.
    bool isBehind(Stream stream, int64_t orderUs);
    // A packet that is shown then was handed on.
    void noteHandedOn(int64_t shownUs);
    // Whether the turn was read, of an input with these streams.
    bool isRead(bool hasVideo, bool hasSound) const;
    // Whether anything behind the turn was met.
    bool isEndMet() const { return isPicturesRead_ || isSoundRead_; }

    // The turn ends at `endUs` of the film, which lasts `durationUs` by what it says itself, 0 if it doesn't, and the
    // next one is read. False if nothing was in it, for some turns now, or can be in the next one: then there is no
    // loop any more.
    bool goRound(int64_t endUs, int64_t durationUs = 0);
    // The input couldn't go back: the turn before is read on, and there is no loop any more.
    void cancelTurn();
    // There is no loop any more, and the turn is read on.
    void end();

    // The input goes to where the line is `shiftMs` ahead of the film, at `lineMs`; 0: the line is the film's time.
    void seek(int64_t lineMs, int64_t shiftMs);
    // The input was closed.
    void forget();

private:
    struct Piece {
        int64_t fromMs;  // on the line
        std::shared_ptr<const LoopTurn> turn;
    };
    // The number of the one that `lineMs` is in, of some; mutex_ is held.
    size_t find(int64_t lineMs) const;
    void beginTurn();
    // Ends the turn where the loop ends.
    void setEnd(LoopTurn& turn) const;

    mutable std::mutex mutex_;  // a leaf
    std::optional<Loop> asked_;
    std::deque<Piece> pieces_;  // in the order of their times, the last one is read; guarded by mutex_, as is asked_
    std::atomic<bool> isAsked_{false};
    std::atomic<bool> isBent_{false};
    std::atomic<bool> isGivenUp_{false};

    std::optional<Loop> loop_;
    std::shared_ptr<const LoopTurn> turn_;
    int64_t knownEndUs_ = LoopTurn::kOpen;  // of the film, once it was met
    int64_t lastEndUs_ = LoopTurn::kOpen;   // of the input as it was met last
    bool isPicturesRead_ = false;
    bool isSoundRead_ = false;
    int64_t latestUs_ = 0;  // of what was met behind the turn
    int packets_ = 0;       // of the turn that were handed on to be played
    int emptyTurns_ = 0;
};

}  // namespace kelp
