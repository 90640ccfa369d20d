#pragma once

#include <atomic>
#include <cstdint>
#include <limits>
#include <mutex>
#include <optional>

#include "runtime/seek_rule.h"

namespace kelp {

// Whose turn it is among the seeks of one playback: one runs at a time, those that come meanwhile wait, and only the
// newest of them runs next. Any thread may call, under any lock: the mutex in here is a leaf, but for the log's.
//
// docs/architecture.md has a table of what each call does in each phase under SeekRule::Standard; RulePoints has what
// is otherwise under Exact.
//
// What follows from it: an accepted request is the running one, the one due, or the last that waits, until it is
// served, overtaken by a newer one, or ended by a stop, by the end of the film behind which no frame has come or, under
// Standard, by any end of the film and by the frame of another one.
class SeekTurns {
public:
    // One that has waited: to be asked for anew, if isDue says so by then.
    struct Next {
        int timeMs;
        int waiting;  // how many it stands for
        unsigned int turn;
    };

    explicit SeekTurns(SeekRule rule) : rule_(rule), nextRule_(rule) {}

    // For the requests that go from here on.
    void setRule(SeekRule rule);

    // True if a seek runs, and this request now waits for its end. Otherwise it goes at once: `served` or `start` are
    // next, before any other request may go.
    bool request(int timeMs);
    // The first half of it: nothing happens unless it is true.
    bool park(int timeMs);

    void served();           // the target was among the frames: that was all
    void start(int timeMs);  // it was not: the seek runs from here on
    void taken();            // the parser carries it out
    void arrived();          // the play threads are told now

    // What ends a seek. The request that comes next is the caller's to post, after which isDue decides.
    // The very first frame of a playback is none of a seek's, which Standard doesn't tell apart.
    enum class FrameOf { Seek, Start };
    std::optional<Next> firstFrame(FrameOf of = FrameOf::Seek);
    void noMoreFrame();
    // Whether that is to be told: not if an accepted seek goes first.
    bool completed();
    bool failed();
    // What waits though no seek runs, where the end of one has left it. Standard leaves it to the next first frame.
    std::optional<Next> newest();
    void forget();  // a stop

    bool isDue(unsigned int turn) const;
    // Whether a stage has the running seek, so that something will end it. Standard takes it for granted.
    bool isTaken() const;
    int waiting() const;
    // Of the seek that went last.
    SeekRule rule() const;
    // Whether a first frame is to come that nothing but the end of the film keeps back. Never under Standard.
    bool isFrameAwaited() const;
    // Where playback goes on behind a first frame of this time: at the target that it holds, under Exact.
    int64_t positionAt(int64_t framePtsMs) const;
    // Of the running seek. Takes no lock.
    std::optional<int> target() const;
    // Whether none runs and none is due. Takes no lock.
    bool isIdle() const { return phase_ == Phase::Idle; }
    // Whether one waits, or is handed on.
    bool hasNext() const;

private:
    friend class PlayTaskPeer;  // lets tests hold an end of a seek and a request apart

    enum class Phase { Idle, Due, Asked, Read, Arrived };

    // Where the rules differ.
    struct RulePoints {
        // A request that goes at once drops what waits, and makes void the replay that was due; what waits at the end
        // of the film goes first, and the end isn't told.
        bool newestGoesFirst;
        // The phase from which on a first frame, or that none will come, ends a seek.
        Phase endsFrom;
        // The phase from which on the film's end ends a seek. Before, the parser, which saw all queues empty, gets the
        // seek next and with it comes back to life: the end isn't told. Idle for: it is told in any phase.
        Phase filmEndsFrom;
        // A failure is an end of the film.
        bool failureEnds;
        // The frame that ends a seek is that of its target: not the very first one of a playback, and playback goes on
        // at the target and not at the frame's beginning.
        bool frameHoldsTarget;
    };
    static const RulePoints& pointsOf(SeekRule rule);

    const RulePoints& points() const { return pointsOf(rule_); }
    Next handOn();
    bool isRunning() const { return phase_ >= Phase::Asked; }
    bool parkIfRunning(int timeMs);
    void end();

    static constexpr int kNone = std::numeric_limits<int>::min();

    mutable std::mutex mutex_;  // guards what follows
    SeekRule rule_;             // of the seek that went last
    SeekRule nextRule_;
    std::atomic<Phase> phase_{Phase::Idle};  // written under mutex_
    int newestMs_ = 0;                       // the last that waits
    int waiting_ = 0;                        // how many; the same time twice in a row counts once
    unsigned int turn_ = 0;                  // a replay of an older one is void
    std::atomic<int> targetMs_{kNone};       // of the running seek; written under mutex_
};

}  // namespace kelp
