#pragma once

#include <cstdint>
#include <deque>
#include <limits>
#include <memory>
#include <optional>
#include <vector>

namespace kelp {

class MediaPacket;

// Finds what is decoded for nobody: on the way to a seek's target, the frames that the play thread would drop unseen,
// and behind playback, those that come too late. The owner's lock guards all of it.
//
// The play thread shows the frame that the target lies in. A frame ends where the next one starts, or, as long as that
// one isn't queued, after what the decoder took from the frame before: 100 ms at most, and 40 behind a longer gap. So
// the one shown is the last at or before the target, or one in the 100 ms before it. A frame that starts 200 ms before
// the target has no say in that if another one lies between the two: it doesn't hold the target itself, the frames of
// those 100 ms keep the ones before them, or have a gap there whose length doesn't count, and for every earlier frame
// the same holds. Three are asked for, should some be damaged.
//
// - Behind the end of the film the last time known stands for the target; what is still to be read only raises it.
// - Packets come in the order of decoding. The first one near the target ends the rule, so that none is left out when
//   the target may have been reached; so does one whose decoding time goes back, as its time may be any.
// - A seek without flush may bring another target, but none before the one that frames were left out for: `isLeftOut`.
//   What wasn't needed for that one isn't needed for a later one either.
//
// Where a decoder can't keep up, a frame comes too late if a newer one that waits is due by now. None of these is
// delivered, and those are dropped undecoded that lie before a key frame that is due as well; or, if playback has got
// two seconds ahead, before one that waits at all: nothing is awaited that may never come. What is shown before such a
// key frame but decoded behind it refers to what was dropped, and isn't delivered either.
//
// It tells as well when the one shown is in the decoder, with those behind it that its turn in the order of showing may
// depend on; and which one holds the target, by the times of all packets up to it.
class SeekSkip {
public:
    using Packets = std::deque<std::shared_ptr<MediaPacket>>;

    static constexpr int64_t kNone = std::numeric_limits<int64_t>::min();
    static constexpr int64_t kShortestLeadInMs = 200;
    static constexpr int kNotYet = -1;

    // `leadInMs`: how long before the target all frames are needed; at least kShortestLeadInMs.
    explicit SeekSkip(int64_t leadInMs) : leadInMs_(leadInMs) {}

    // A seek. With `flush` the packets that were taken are forgotten.
    void aim(int64_t targetMs, bool flush);

    // `packet` goes to the decoder now; `behind` are those that wait.
    void take(const MediaPacket& packet, const Packets& behind);

    // Playback is at `dueMs`, or nothing is late: how many packets at the front of `waiting` aren't to be taken any
    // more, as a key frame behind them is due, or is there and playback far ahead. They count as left out.
    int countDropped(const Packets& waiting, std::optional<int64_t> dueMs);

    // Behind `take`: leaves the frame of `packet` out if it comes too late. Whether it does, or lies before one that
    // did.
    bool leaveOutIfLate(const MediaPacket& packet, const Packets& behind, std::optional<int64_t> dueMs);

    // Frames come out of the decoder in the order of their times, and have come up to this one: what was taken for a
    // later one, and is no turn's, is in the decoder still.
    void noteDelivered(int64_t toMs);
    // How many were in the decoder when a later one came too late, since this was asked last.
    int takeOvertaken();

    // Frames before this time are for nobody. A flush takes that back.
    int64_t neededFromMs() const { return neededFromMs_; }

    // How many packets behind the target were taken, all up to it included; kNotYet as long as one of these may come,
    // and when enough were counted. Only `take` changes it.
    int takenBehind() const { return takenBehind_; }

    // A frame that holds a target: none that was taken or will come begins behind it and not behind the target.
    struct Holder {
        int64_t timeMs = kNone;
        int64_t targetMs = kNone;
    };
    // The last one that was found. True of any seek, so it stays until the next is found, or a flush.
    Holder holder() const { return holder_; }

    // Whether frames may be missing at this time.
    bool isLeftOut(int64_t timeMs) const { return timeMs < earliestMs_; }

private:
    int countBehind(const MediaPacket& packet, const Packets& behind);
    bool isUnneeded(int64_t timeMs, int64_t dts, const Packets& behind) const;
    bool isLate(const MediaPacket& packet, const Packets& behind, std::optional<int64_t> dueMs);
    void leaveOut(int64_t toMs);
    // Each packet with data, in the order of decoding.
    void noteOrder(const MediaPacket& packet);

    const int64_t leadInMs_;
    int64_t targetMs_ = kNone;  // until it comes near
    int64_t lastDts_ = kNone;   // of the packets taken or dropped since the last seek, in ticks
    int64_t neededFromMs_ = kNone;
    int64_t lateToMs_ = kNone;       // frames before came too late
    int64_t earliestMs_ = kNone;     // of what may be found: frames before were left out
    std::vector<int64_t> insideMs_;  // in the decoder, and needed when they were taken
    int overtaken_ = 0;
    int64_t awaitedMs_ = kNone;    // target, until enough was taken behind it
    int laterTaken_ = 0;           // packets behind it
    int64_t lastTakenMs_ = kNone;  // the latest time of the packets taken since the last flush
    int64_t heldMs_ = kNone;       // of those, the latest that isn't behind awaitedMs_
    bool isHeldKnown_ = false;     // no packet was taken for an earlier target and lies behind this one
    Holder holder_;
    int takenBehind_ = kNotYet;
};

}  // namespace kelp
