#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <limits>
#include <memory>
#include <queue>

namespace kelp {

class DecodedFrame;

// Steps from one frame to another while playback is paused: which one is shown next, and what has to happen before.
//
// The queue's front is the frame that is shown, once a step was made. Those that steps have passed are kept, up to a
// limit, and go back to the front for a step back. Before the first of them a seek goes on: to right before it, of
// which those are kept as well that are dropped on the way. A picture that was blanked meanwhile isn't kept.
//
// `isAsked`, `isAwaited` and `isLanding` may be read by any thread; the queue's mutex guards all else.
class FrameSteps {
public:
    using Queue = std::queue<std::shared_ptr<DecodedFrame>>;

    // What `take` comes to: nothing is to be done; the front is to be shown; it waits for the next frame; or a seek to
    // `seekTimeMs` is to be made.
    enum class Outcome { Nothing, Show, Wait, Seek };

    // Frames forward, or back if negative, behind those that were asked for and not made yet.
    void ask(int frames);
    // Forgets what was asked for.
    void drop();

    // Whether `take` has something to do.
    bool isAsked() const { return (isAnyAsked_ || isShowDue_) && awaitedMs_ == kNone; }
    // Makes as many steps as can be made. `isLast`: no frame comes behind the queue.
    Outcome take(Queue& queue, bool isLast);

    int seekTimeMs() const { return static_cast<int>(awaitedMs_); }
    bool isAwaited(int seekTimeMs) const { return awaitedMs_ == seekTimeMs; }
    // A seek begins, and ends in `front` after frames were dropped for it. Whether it is the one of a step.
    bool begin(int seekTimeMs);
    bool isLanding() const { return isLanding_; }
    void skip(const std::shared_ptr<DecodedFrame>& frame);
    void land(const DecodedFrame& front);

    // The frame at `pts` is shown: the queue's front, which stays, or one that has left the queue.
    void showFront(int64_t pts);
    void leave(int64_t pts);
    // The queue's front changes: it counts as shown if there is one.
    void cut(const Queue& queue);
    bool hasShown() const { return shownMs_ != kNone; }

private:
    // Both make of the first request what can be made at once. For Wait and Seek the rest is kept.
    Outcome goForward(Queue& queue, bool isLast, bool& hasMoved);
    Outcome goBack(Queue& queue, bool& hasMoved);
    void pass(std::shared_ptr<DecodedFrame> frame);
    void forgetPassed();

    static constexpr int64_t kNone = std::numeric_limits<int64_t>::min();

    std::deque<int> asked_;  // in turn; at the end the last frame stays whatever is asked for, and the rest goes on
    std::atomic<bool> isAnyAsked_{false};
    std::atomic<bool> isShowDue_{false};     // a seek for a step has ended
    std::atomic<int64_t> awaitedMs_{kNone};  // the target of the seek that a step waits for
    int64_t beforeMs_ = kNone;               // the frame shown then
    std::atomic<bool> isLanding_{false};
    bool isFrontShown_ = false;
    std::atomic<int64_t> shownMs_{kNone};               // none before the first frame
    std::deque<std::shared_ptr<DecodedFrame>> passed_;  // the last one is right before the queue's front
    uint64_t passedBytes_ = 0;
};

}  // namespace kelp
