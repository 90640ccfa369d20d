#include "present/base_play_thread.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "clock/wrapping_math.h"
#include "kelp_player/log.h"
#include "runtime/kelp_time.h"

namespace kelp {

namespace {

constexpr const char* kTag = "BasePlayThread";

constexpr int kRetryMs = 50;  // until a frame that was not done with is offered again, and a step of a paused loop
constexpr int64_t kKeepUs = 30'000;      // until a queue that is down to what it keeps is looked at again
constexpr int64_t kMaxOverlapMs = 5000;  // at a splice; times that lie farther back have nothing to do with these
constexpr int kIdleMs = 50;              // until a served output whose queue is empty is served

int64_t endOf(const DecodedFrame& frame) {
    return wrappingAdd(frame.pts, frame.duration);
}

}  // namespace

BasePlayThread::BasePlayThread(std::string name, int keepFrames, Idle idle)
    : BaseThread(name), threadName_(std::move(name)), keepFrames_(keepFrames), idle_(idle) {
}

void BasePlayThread::Run() {
    Log::Debug(kTag, "[%s], %s\n", threadName_.c_str(), "Run");
    setName(threadName_.c_str());

    onFramesTaken(getFrameQueueSize());
    while (!isStopRequested()) {
        if (const unsigned int resumes = resumes_; paused_ && !landing_.isRunning() && !isStepDue()) {
            restBeforeOffer(resumes);
            lateStart_.hold();
        }

        std::unique_lock lock(queueMutex_);
        startPendingSeeks(lock);
        if (makeSteps(lock)) {
            continue;
        }
        if (frameQueue_.empty() || (landing_.isRunning() && judgeFront() == SeekLanding::Verdict::Wait)) {
            waitForFrame(lock);
            continue;
        }
        const size_t size = frameQueue_.size();
        const auto frame = landing_.isRunning() ? skipToTarget() : frameQueue_.front();
        if (frame) {
            presentedToMs_ = endOf(*frame);
        }
        unlockAndTell(lock, size);
        if (!frame) {
            // The queue is waited for at once: a rest here would be one for each frame on the way to the target.
            continue;
        }
        if (!isDue(*frame)) {
            continue;
        }
        if (!present(frame)) {
            continue;
        }
        lock.lock();
        if (paused_) {
            steps_.showFront(frame->pts);
        } else {
            popPresented(lock, *frame);
        }
    }

    dropFrames();
    onExit();
}

void BasePlayThread::dropFrames() {
    std::lock_guard lock(queueMutex_);
    clearQueue(frameQueue_);
    steps_.drop();
    steps_.cut(frameQueue_);
    noteLevel();
}

void BasePlayThread::startPendingSeeks(std::unique_lock<std::mutex>& lock) {
    while (const auto seekTimeMs = seekAsked_.take()) {
        landing_ = SeekLanding(seekRule_, static_cast<int>(*seekTimeMs));
        skipCount_ = 0;
        lateStart_.beginAnew(landing_.targetMs(), KelpTime::getTimeMs());
        steps_.begin(landing_.targetMs());
        lock.unlock();
        onSeekStart(landing_.targetMs());
        lock.lock();
    }
}

void BasePlayThread::waitForFrame(std::unique_lock<std::mutex>& lock) {
    // There is no seek and no frame but one that waits for another, or for the end, by looks under the mutex. What
    // comes behind them is counted under it, too: it ends the wait or lets none begin.
    const unsigned int told = told_;
    lock.unlock();
    const bool isTold = news_.waitMs(idle_ == Idle::Asleep ? Rest::kForeverMs : kIdleMs,
                                     [&] { return isStopRequested() || told_ != told; });
    lock.lock();
    if (!isTold) {
        onOutput();
    }
}

int64_t BasePlayThread::skipLimit() const {
    const int64_t maxPtsMs = maxPtsMs_;
    const bool isEndKnown = maxPtsMs > 0 || (maxPtsMs == 0 && takesOddStreams());
    return landing_.limitMs(isEndKnown ? maxPtsMs : std::numeric_limits<int64_t>::max());
}

SeekLanding::Verdict BasePlayThread::judgeFront() {
    const auto behind = frameQueue_.size() > 1 ? SeekLanding::Behind::AFrame
                        : isLast_              ? SeekLanding::Behind::Nothing
                                               : SeekLanding::Behind::Unknown;
    return landing_.judge(*frameQueue_.front(), behind, skipLimit());
}

std::shared_ptr<DecodedFrame> BasePlayThread::skipToTarget() {
    while (!frameQueue_.empty()) {
        const auto verdict = judgeFront();
        if (verdict == SeekLanding::Verdict::Wait) {
            return nullptr;
        }
        if (verdict == SeekLanding::Verdict::Land) {
            const auto front = frameQueue_.front();
            Log::Info(kTag,
                      "[%s], %s, finish skip frame, skip count:%d, pts:%lld, duration:%lld, seekTime:%d, "
                      "skipLimit:%d, left q.size:%d\n",
                      threadName_.c_str(), "Run", skipCount_, static_cast<long long>(front->pts),
                      static_cast<long long>(front->duration), landing_.targetMs(), static_cast<int>(skipLimit()),
                      static_cast<int>(frameQueue_.size()));
            landing_.land(*front);
            if (isStepSeek()) {
                landing_ = {};
                steps_.land(*front);
                onSeekFinish(static_cast<int>(front->pts));
                return nullptr;
            }
            if (const int64_t startMs = startOf(*front); startMs != front->pts) {
                cutTo(*front, startMs);
                landing_.land(*front);
            }
            onSeekFinish(static_cast<int>(front->pts));
            return front;
        }
        steps_.skip(frameQueue_.front());
        frameQueue_.pop();
        ++skipCount_;
    }
    return nullptr;
}

bool BasePlayThread::isDue(const DecodedFrame& frame) {
    const int64_t nowMs = KelpTime::getTimeMs();
    if (lateStart_.isUnseen()) {
        lateStart_.comeTo(otherTimeMs(), nowMs);
    }
    const int64_t remainingMs = lateStart_.remaining(frame.pts, nowMs, paused_);
    if (remainingMs <= 0) {
        return true;
    }
    onLateStart(lateStart_.positionMs());
    restUntilSeek(std::min<int64_t>(remainingMs, kRetryMs) * 1000, [this] { return isStepDue(); });
    return false;
}

bool BasePlayThread::present(const std::shared_ptr<DecodedFrame>& frame) {
    for (unsigned int resumes = resumes_; !onOutput(frame); resumes = resumes_) {
        restBeforeOffer(resumes);
        if (isStopRequested() || seekAsked_.isPending()) {
            return true;
        }
        if (isStepDue()) {
            return false;
        }
    }
    return true;
}

void BasePlayThread::restBeforeOffer(unsigned int resumes) {
    const bool isAsleep = idle_ == Idle::Asleep && paused_;
    rest(isAsleep ? Rest::kForeverMs : kRetryMs,
         [&] { return seekAsked_.isPending() || resumes_ != resumes || isStepDue(); });
}

void BasePlayThread::popPresented(std::unique_lock<std::mutex>& lock, const DecodedFrame& frame) {
    const size_t size = frameQueue_.size();
    if (static_cast<int>(size) > keepFrames_) {
        const bool isAwaited = idle_ == Idle::Served && seekAsked_.isPending();  // sound that was played is used up
        if (SeekLanding::mayLeave(seekRule_, frameQueue_.front().get() == &frame, isAwaited)) {
            frameQueue_.pop();
        }
        steps_.leave(frame.pts);
    } else if (size > 0 && static_cast<int>(size) == keepFrames_) {
        // With the mutex held: producers and the control side wait as well.
        restUntilSeek(kKeepUs);
    }
    unlockAndTell(lock, size);
}

void BasePlayThread::unlockAndTell(std::unique_lock<std::mutex>& lock, size_t before) {
    const size_t left = frameQueue_.size();
    noteLevel();
    lock.unlock();
    if (left < before) {
        onFramesTaken(static_cast<int>(left));
    }
}

void BasePlayThread::noteLevel() {
    const bool isEmpty = frameQueue_.empty();
    level_.set(frameQueue_.size(), isEmpty ? 0 : wrappingSubtract(frameQueue_.back()->pts, frameQueue_.front()->pts));
}

void BasePlayThread::restUntilSeek(int64_t us, const std::function<bool()>& isWanted) {
    restUs(us, [&] { return seekAsked_.isPending() || (isWanted && isWanted()); });
}

void BasePlayThread::takeOddStreams(int64_t beginMs) {
    lateStart_ = LateStart(/*isWanted=*/true);
    lateStart_.begin(beginMs);
}

bool BasePlayThread::start() {
    started_ = true;
    started_ = startThread();
    return started_;
}

void BasePlayThread::stop() {
    prepareStop();
    requestStop();
    joinThread();
    dropFrames();  // that came behind the thread's end
    maxPtsMs_ = -1;
    started_ = false;
}

void BasePlayThread::prepareStop() {
    BaseThread::prepareStop();
    news_.end();
}

int BasePlayThread::fillFrame(std::shared_ptr<DecodedFrame> frame) {
    frame->queuedUs = KelpTime::getSteadyUs();
    std::unique_lock lock(queueMutex_);
    const size_t before = frameQueue_.size();
    if (splicing_ && !spliceIn(*frame)) {
        return static_cast<int>(before);
    }
    if (!frameQueue_.empty() && frame->pts > frameQueue_.back()->pts) {
        auto& last = *frameQueue_.back();
        std::atomic_ref(last.duration).store(wrappingSubtract(frame->pts, last.pts), std::memory_order_relaxed);
        last.lastsToMs = wrappingSubtract(frame->pts, 1);
    }
    isLast_ = false;
    frameQueue_.push(std::move(frame));
    ++told_;
    const size_t size = frameQueue_.size();
    unlockAndTell(lock, before);
    news_.end();  // with the mutex free, which who wakes takes
    return static_cast<int>(size);
}

void BasePlayThread::splice() {
    std::lock_guard lock(queueMutex_);
    splicing_ = true;
}

bool BasePlayThread::spliceIn(const DecodedFrame& frame) {
    const int64_t fromMs = frameQueue_.empty() ? presentedToMs_ : endOf(*frameQueue_.front());
    const int64_t middleMs = wrappingAdd(frame.pts, frame.duration / 2);
    if (fromMs >= 0 && middleMs < fromMs && wrappingSubtract(fromMs, middleMs) < kMaxOverlapMs) {
        return false;
    }
    splicing_ = false;
    // The front one may be on its way out.
    std::queue<std::shared_ptr<DecodedFrame>> kept;
    while (!frameQueue_.empty() && (kept.empty() || frameQueue_.front()->pts < frame.pts)) {
        kept.push(std::move(frameQueue_.front()));
        frameQueue_.pop();
    }
    frameQueue_.swap(kept);
    return true;
}

int64_t BasePlayThread::durationOf(DecodedFrame& frame) {
    return std::atomic_ref(frame.duration).load(std::memory_order_relaxed);
}

int BasePlayThread::getFrameQueueSize() {
    std::lock_guard lock(queueMutex_);
    const auto size = static_cast<int>(frameQueue_.size());
    return splicing_ ? std::min(size, 1) : size;
}

int64_t BasePlayThread::queuedMs() {
    std::lock_guard lock(queueMutex_);
    return frameQueue_.empty() ? 0 : wrappingSubtract(frameQueue_.back()->pts, frameQueue_.front()->pts);
}

bool BasePlayThread::pause(bool paused) {
    Log::Debug(kTag, "[%s], pause:%d\n", threadName_.c_str(), paused);
    if (paused_.exchange(paused) && !paused) {
        ++resumes_;
        endRest();
    }
    return true;
}

void BasePlayThread::setMaxPtsMs(int64_t ms) {
    int64_t known = maxPtsMs_;
    while (known < ms && !maxPtsMs_.compare_exchange_weak(known, ms)) {
    }
}

void BasePlayThread::clearQueue(std::queue<std::shared_ptr<DecodedFrame>>& queue) {
    std::queue<std::shared_ptr<DecodedFrame>> released;
    queue.swap(released);
}

}  // namespace kelp
