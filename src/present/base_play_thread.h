#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <queue>
#include <string>

#include "decode/decoded_frame.h"
#include "present/frame_steps.h"
#include "present/late_start.h"
#include "present/seek_landing.h"
#include "runtime/base_thread.h"
#include "runtime/latest_time.h"
#include "runtime/seek_rule.h"
#include "runtime/stage_counts.h"

namespace kelp {

// Holds decoded frames until it is their time, hands them to the output of the derived class one by one, and carries
// a seek out on them: frames are dropped until the one comes that SeekLanding chooses.
//
// One thread, the play thread, runs the loop and calls all `on...` operations. `fillFrame` comes from the decode side
// and never blocks or refuses; everything else comes from the control side. None of them is held up by a slow output:
// the queue's mutex is released before a frame is handed on. A derived class stops the thread in its own destructor,
// if `isStarted` says so.
class BasePlayThread : private BaseThread {
public:
    // Whether the output has something to do while there is nothing new for it: in a pause, and while the queue is
    // empty. If not, the thread sleeps then.
    enum class Idle { Served, Asleep };

    // `keepFrames`: how many frames stay queued after output.
    BasePlayThread(std::string name, int keepFrames, Idle idle = Idle::Served);

private:
    void Run() override;

public:
    // Before the start, which is at `beginMs`: takes streams that are odd. A first frame that comes later than that, or
    // than the target of a seek, waits for its time, as another stream has begun before; and a stream whose last time
    // is 0 ends there, as one of one picture does. A seek in a pause that has to tell a position finds no frames.
    void takeOddStreams(int64_t beginMs);

    // Starts the play thread. Does not take back a stop.
    virtual bool start();

    // Queues `frame` and returns the queue's new length. The frame before it gets the distance of the two as its
    // duration if time goes forward between them.
    virtual int fillFrame(std::shared_ptr<DecodedFrame> frame);

    // At most 1 while a splice hasn't begun: what waits till then holds nothing up.
    virtual int getFrameQueueSize();

    // What waits; any thread, without a lock.
    const QueueLevel& level() const { return level_; }

    // The frames that are filled from here on replace those that wait and are later. Those that end before the one goes
    // out which is next, or the last one that went, are dropped: time goes on evenly.
    void splice();

    // While paused the front frame stays queued; a served output is offered it again about every 50 ms. Always true.
    virtual bool pause(bool paused);

    // Drops frames up to the one that plays at `seekTimeMs`, or up to the highest known time if that is lower. With
    // `needFlush` those that are queued now go at once.
    virtual void seek(int seekTimeMs, bool needFlush);

    // For the seeks from here on, and for what leaves the queue.
    void setSeekRule(SeekRule rule) { seekRule_ = rule; }

    // Whether a queued frame begins at `seekTimeMs` or before, so that no earlier one is missing for a seek to there.
    bool holdsFrom(int seekTimeMs);
    // If so, calls `onFound` and seeks without a flush; the next frame goes out behind that. `onFound` comes with the
    // queue's mutex held.
    bool seekInQueue(int seekTimeMs, const std::function<void()>& onFound);

    // No frame comes behind those that were filled, until a seek flushes.
    void endFrames();

    // Whether the target lies between the first and the last queued frame.
    virtual bool checkBuffer(int seekTimeMs);

    // Drops the queued frames before the target; all of them, with false, if it isn't in the queue.
    virtual bool clearBuffer(int seekTimeMs);

    // Shows the frame that lies so many behind the one that is shown, or before it if negative, for a thread that is
    // paused; the last one, or the first, where there are fewer. Those asked for during a seek go on from its end, and
    // none beyond the pause's.
    void step(int frames);
    // Forgets the steps that were not made yet.
    void dropSteps();
    // Whether a step waits for a seek to `seekTimeMs`.
    bool isStepAwaited(int seekTimeMs) const { return steps_.isAwaited(seekTimeMs); }
    // Whether a frame was shown since the start. Any thread.
    bool hasShown() const { return steps_.hasShown(); }

    // Ends the play thread and waits for it; the queue is empty then.
    virtual void stop();

    // The highest time known for the stream, in milliseconds. It only grows until `stop`; -1 stands for none.
    virtual void setMaxPtsMs(int64_t ms);
    virtual int64_t getMaxPtsMs() { return maxPtsMs_; }

    // Lets the play thread end, ahead of a `stop` or as its first step. A derived class whose output can block releases
    // that here, once the request is made.
    virtual void prepareStop();

protected:
    // Presents `frame`. True when it is done with; false to be offered the same frame again after 50 ms. No lock held.
    virtual bool onOutput(std::shared_ptr<DecodedFrame> frame) = 0;

    // The queue stayed empty for 50 ms; for a served output only. The queue's mutex is held here and in onSeekFinish:
    // no call of an operation that looks at the queue.
    virtual void onOutput() = 0;

    // A seek was asked for; once for each, before any frame is dropped for it. No lock held.
    virtual void onSeekStart(int seekTimeMs) = 0;

    // The frame with this time is the one that the seek ends with; it is offered next.
    virtual void onSeekFinish(int ptsMs) = 0;

    // `timeMs` lies behind the beginning of the frame that an exact seek ends with; right before onSeekFinish.
    virtual void cutTo(DecodedFrame& /*frame*/, int64_t /*timeMs*/) {}

    // Shows `frame`, to which a step in a pause has led. No lock held.
    virtual void onStep(const std::shared_ptr<DecodedFrame>& /*frame*/) {}
    // A step goes on behind an exact seek to `seekTimeMs`. No lock held.
    virtual void onStepSeek(int /*seekTimeMs*/) {}
    // Whether a seek was asked for that hasn't ended: steps wait for that. Looks at atomics alone.
    virtual bool isSeekUnderWay() const { return false; }

    // Where the other stream has come to, in milliseconds; -1 if there is none, or it hasn't begun. No lock held.
    virtual int64_t otherTimeMs() { return -1; }
    // Playback has come to `positionMs`, before the first frame. Comes every 50 ms until that is due. No lock held.
    virtual void onLateStart(int64_t /*positionMs*/) {}

    // The last act of the play thread. No lock held.
    virtual void onExit() = 0;

    // Frames have left the queue, `left` are in it; once at the start, too. On the thread that took them, with none of
    // this class's locks held.
    virtual void onFramesTaken(int /*left*/) {}

    // Releases what is queued.
    void dropFrames();

    // The frame's duration in milliseconds. To be read in this way outside of the queue's mutex: it changes when the
    // next frame comes in, also while this one is being presented.
    static int64_t durationOf(DecodedFrame& frame);

    // For a change of a frame that is still queued in what other threads look at: its buffer and its time. Not held
    // yet.
    std::unique_lock<std::mutex> queueLock() { return std::unique_lock(queueMutex_, std::defer_lock); }

    // Rests for `us` microseconds at most; a seek, which the next pass starts, ends it, or `isWanted` as in `rest`.
    void restUntilSeek(int64_t us, const std::function<bool()>& isWanted = {});
    using BaseThread::endRest;

    // A seek was asked for and the loop has not got to it yet.
    bool isSeekPending() const { return seekAsked_.isPending(); }

    // A step is to be made now: what keeps the loop from it is to be broken off.
    bool isStepDue() const { return steps_.isAsked() && steps_.hasShown() && !isSeekUnderWay(); }
    // The seek that runs, for the play thread, is that of a step.
    bool isStepSeek() const { return steps_.isLanding(); }

    // From the beginning of the front frame to that of the last one, in milliseconds.
    int64_t queuedMs();

    bool takesOddStreams() const { return lateStart_.isWanted(); }

    // See SeekLanding; for the play thread.
    bool isLanded(const DecodedFrame& frame) const { return landing_.isLanded(frame); }
    int64_t startOf(const DecodedFrame& frame) const { return landing_.startOf(frame); }

    // From `start` to the end of `stop`.
    bool isStarted() const { return started_.load(std::memory_order_relaxed); }

public:
    bool isPaused() const { return paused_; }
    bool isStopRequested() { return BaseThread::isStopRequested(); }

private:
    // For a frame that is filled with a splice asked for; false if it is too early. The queue's mutex is held.
    bool spliceIn(const DecodedFrame& frame);
    // Releases all frames. The queue's mutex is held.
    static void clearQueue(std::queue<std::shared_ptr<DecodedFrame>>& queue);

    // The steps of the loop, with queueMutex_ held at call and return.
    void startPendingSeeks(std::unique_lock<std::mutex>& lock);
    void waitForFrame(std::unique_lock<std::mutex>& lock);
    // What the running seek is to reach: a target behind the end of the stream ends at the last frame known.
    int64_t skipLimit() const;
    SeekLanding::Verdict judgeFront();
    std::shared_ptr<DecodedFrame> skipToTarget();
    void popPresented(std::unique_lock<std::mutex>& lock, const DecodedFrame& frame);  // unlocks
    // After a change of the queue, with its mutex held.
    void noteLevel();
    // Notes the level, unlocks, and tells if the queue is shorter than `before`.
    void unlockAndTell(std::unique_lock<std::mutex>& lock, size_t before);
    // Until the front frame is to be offered (again), or a pause has ended since `resumes_` was read. No lock held.
    void restBeforeOffer(unsigned int resumes);
    // queueMutex_ is held, in all four.
    void postSeek(int seekTimeMs);
    void tell();  // a loop that waits for a frame is to look
    bool beginsBy(int seekTimeMs) const;
    bool dropBefore(int seekTimeMs);
    // Whether the target lies in the queue's range; logs as `operation`.
    bool isInRange(int seekTimeMs, const char* operation);

    // Whether it is time for `frame`, in a stream that may begin late; rests if not. No lock held.
    bool isDue(const DecodedFrame& frame);
    // Makes the steps that are due; false if there are none. The lock is held at call, and mostly not at return.
    bool makeSteps(std::unique_lock<std::mutex>& lock);
    // Offers `frame` until it is done with, or a stop, a seek or a step comes; false for a step. No lock held.
    bool present(const std::shared_ptr<DecodedFrame>& frame);

    const std::string threadName_;
    const int keepFrames_;
    const Idle idle_;
    std::queue<std::shared_ptr<DecodedFrame>> frameQueue_;  // front is next; guarded by queueMutex_
    std::mutex queueMutex_;
    QueueLevel level_;                   // of frameQueue_
    std::atomic<unsigned int> told_{0};  // times that a loop without a frame had to look; written under queueMutex_
    Rest news_;                          // of that loop; ends when told_ has changed, and for a stop
    bool isLast_ = false;                // no frame comes behind the queue; guarded by queueMutex_, like the next two
    bool splicing_ = false;
    int64_t presentedToMs_ = -1;  // the end of the frame presented last; -1 when none was since the last seek
    std::atomic<bool> paused_{false};
    std::atomic<unsigned int> resumes_{0};  // pauses that have ended
    LatestTime seekAsked_;                  // in milliseconds; posted with queueMutex_ held, with what it flushes
    std::atomic<SeekRule> seekRule_{SeekRule::Standard};  // set before the seek that it is for
    SeekLanding landing_;                                 // of the last seek; the loop's, like the next
    int skipCount_ = 0;                                   // frames dropped for it
    LateStart lateStart_;                                 // the loop's, but whether it is wanted
    FrameSteps steps_;
    std::atomic<int64_t> maxPtsMs_{-1};  // highest time known for the stream; -1 for none
    std::atomic<bool> started_{false};   // written by the owner only
};

}  // namespace kelp
