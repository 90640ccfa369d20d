#include "present/video_play_thread.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

#include "clock/render_timing.h"
#include "clock/wrapping_math.h"
#include "kelp_player/log.h"
#include "present/render.h"
#include "present/video_render_factory.h"
#include "runtime/kelp_time.h"

namespace kelp {

namespace {

constexpr char kTag[] = "VideoPlayThread";

// All in milliseconds.
constexpr int64_t kNoSyncThresholdMs = 10000;  // the least distance at which clocks mean nothing to each other
constexpr int64_t kMinSyncThresholdMs = 25;    // a smaller difference is never corrected
constexpr int64_t kMaxSyncThresholdMs = 100;   // a larger one always is
constexpr int64_t kLateFrameMs = -500;         // a frame further behind is too late
constexpr int64_t kTooLate = -1;
constexpr int64_t kMaxDelayMs = 1000;   // a larger jump in time is not waited for
constexpr int64_t kMaxSleepMs = 15;     // so that windows stay served while a frame waits
constexpr int64_t kClockJumpMs = 5000;  // a longer wait means that the wall clock was set
constexpr int64_t kLateLogMs = 20;
constexpr int64_t kHoldAheadMs = 500;  // a frame this far ahead of a forcing master is not due at all

constexpr int kTooLateMinQueued = 2;  // the last frame in the queue is never skipped

bool isForcing(const std::shared_ptr<SyncObject>& master) {
    return master && master->isForceSync();
}

// Whole frame steps from `frameTimer` to `now`.
int countSteps(int64_t elapsedMs, int64_t delayMs) {
    const double steps = std::floor(static_cast<double>(elapsedMs) / static_cast<double>(delayMs));
    return static_cast<int>(std::clamp(steps, static_cast<double>(std::numeric_limits<int>::min()),
                                       static_cast<double>(std::numeric_limits<int>::max())));
}

}  // namespace

VideoPlayThread::VideoPlayThread(bool isLive, RenderTiming* renderTiming)
    : BasePlayThread("VideoPlayThread", /*keepFrames=*/0), isLive_(isLive), renderTiming_(renderTiming) {
}

VideoPlayThread::~VideoPlayThread() {
    if (isStarted()) {
        BasePlayThread::stop();
    }
}

void VideoPlayThread::init(std::shared_ptr<VideoPlayThreadObserver> observer) {
    observer_ = std::move(observer);
}

bool VideoPlayThread::start(int fps) {
    fps_ = fps;
    return BasePlayThread::start();
}

bool VideoPlayThread::addWindow(WindowType type, void* window, int width, int height) {
    std::lock_guard lock(windowMutex_);
    Log::Debug(kTag, "%s, window info size:%d, window:%p\n", "addWindow", static_cast<int>(windowInfos_.size()),
               window);
    const auto known = std::find_if(windowInfos_.begin(), windowInfos_.end(),
                                    [window](const WindowInfo& info) { return info.window == window; });
    if (known != windowInfos_.end()) {
        known->newWidth = width;
        known->newHeight = height;
        known->removed = false;
        return true;
    }
    windowInfos_.push_back({type, window, width, height, width, height, /*removed=*/false, /*paused=*/false, nullptr});
    return true;
}

bool VideoPlayThread::removeWindow(void* window) {
    std::lock_guard lock(windowMutex_);
    Log::Debug(kTag, "%s, window info size:%d, window:%p\n", "removeWindow", static_cast<int>(windowInfos_.size()),
               window);
    for (auto& info : windowInfos_) {
        if (info.window == window) {
            info.removed = true;
        }
    }
    return true;
}

bool VideoPlayThread::pauseWindow(void* window, bool pause) {
    std::lock_guard lock(windowMutex_);
    Log::Debug(kTag, "%s, window info size:%d, window:%p, pause:%d\n", "pauseWindow",
               static_cast<int>(windowInfos_.size()), window, pause);
    for (auto& info : windowInfos_) {
        if (info.window == window) {
            info.paused = pause;
        }
    }
    return true;
}

void VideoPlayThread::updateWindowSize(void* window, int width, int height) {
    std::lock_guard lock(windowMutex_);
    Log::Debug(kTag, "%s, window info size:%d\n", "updateWindowSize", static_cast<int>(windowInfos_.size()));
    for (auto& info : windowInfos_) {
        if (info.window == window) {
            info.newWidth = width;
            info.newHeight = height;
        }
    }
}

void VideoPlayThread::clearScreen() {
    lastFrame_.requestBlank();
}

int64_t VideoPlayThread::getCurrentTime() {
    return currentPts_.load(std::memory_order_relaxed);
}

bool VideoPlayThread::start() {
    return BasePlayThread::start();
}

int VideoPlayThread::fillFrame(std::shared_ptr<DecodedFrame> frame) {
    std::lock_guard lock(frameMutex_);
    return BasePlayThread::fillFrame(std::move(frame));
}

int VideoPlayThread::getFrameQueueSize() {
    return BasePlayThread::getFrameQueueSize();
}

bool VideoPlayThread::pause(bool paused) {
    Log::Debug(kTag, "pause:%d\n", paused);
    videoPaused_ = paused;
    return BasePlayThread::pause(paused);
}

void VideoPlayThread::seek(int seekTimeMs, bool needFlush) {
    Log::Debug(kTag, "%s, seekTimeMs:%d\n", "seek", seekTimeMs);
    resetFrameTimer_ = true;
    std::lock_guard lock(frameMutex_);
    BasePlayThread::seek(seekTimeMs, needFlush);
    seekStartPending_ = true;
}

bool VideoPlayThread::checkBuffer(int seekTimeMs) {
    Log::Debug(kTag, "%s, seekTimeMs:%d\n", "checkBuffer", seekTimeMs);
    std::lock_guard lock(frameMutex_);
    return BasePlayThread::checkBuffer(seekTimeMs);
}

bool VideoPlayThread::clearBuffer(int seekTimeMs) {
    Log::Debug(kTag, "%s, seekTimeMs:%d\n", "clearBuffer", seekTimeMs);
    std::lock_guard lock(frameMutex_);
    return BasePlayThread::clearBuffer(seekTimeMs);
}

void VideoPlayThread::stop() {
    BasePlayThread::stop();
}

void VideoPlayThread::setMaxPtsMs(int64_t ms) {
    BasePlayThread::setMaxPtsMs(ms);
}

int64_t VideoPlayThread::getNoSyncThreshold() {
    return kNoSyncThresholdMs;
}

bool VideoPlayThread::isForceSync() {
    return false;
}

int64_t VideoPlayThread::getSyncPts() {
    return getCurrentPts();
}

void VideoPlayThread::setSyncObject(std::shared_ptr<SyncObject> syncObject) {
    syncObject_.store(std::move(syncObject));
}

bool VideoPlayThread::onOutput(std::shared_ptr<DecodedFrame> decodedFrame) {
    const auto frame = std::dynamic_pointer_cast<VideoFrameInfo>(decodedFrame);
    if (!frame) {
        return true;
    }
    carryOutClearScreen();
    int64_t nowMs = KelpTime::getTimeMs();
    startTiming(frame->pts, nowMs);
    const int64_t distance = wrappingSubtract(frame->pts, lastFramePts_);
    const int64_t delay = computeDelay(std::min(distance, kMaxDelayMs));
    nowMs = waitUntilDue(delay, nowMs);
    logIfLate(frame->pts, delay, nowMs);
    if (isStopRequested()) {
        return true;
    }
    stepFrameTimer(*frame, delay, nowMs);
    lastFramePts_ = frame->pts;

    std::lock_guard lock(outputMutex_);
    if (isTooLate(*frame, delay)) {
        setCurrentPts(frame->pts, nowMs);
        return true;
    }
    const bool held = isHeldByMaster(frame->pts);
    carryOutClearScreen();
    renderFrame(held ? lastFrame_.get() : frame);
    if (!held) {
        lastFrame_.set(frame);
    }
    hadOutput_ = true;
    setCurrentPts(frame->pts, nowMs);
    return !held;
}

// This is what makes new windows, new sizes and a cleared screen show while no frames come. frameMutex_ is not to be
// taken here, within the queue's mutex; nothing is queued, so that nobody else sees the frame.
void VideoPlayThread::onOutput() {
    lastFrame_.carryOutBlanks(std::unique_lock<std::mutex>());
    renderFrame(lastFrame_.get());
}

void VideoPlayThread::onSeekStart(int seekTimeMs) {
    Log::Debug(kTag, "%s, seekTimeMs:%d\n", "onSeekStart", seekTimeMs);
    {
        // `seek` may not have returned yet.
        std::lock_guard lock(frameMutex_);
        seekStartPending_ = false;
    }
    resetFrameTimer_ = true;  // a frame from before the seek may have used up what `seek` set
    setCurrentPts(seekTimeMs, KelpTime::getTimeMs());
}

void VideoPlayThread::onSeekFinish(int ptsMs) {
    Log::Debug(kTag, "onSeekFinish, seekTimeMs:%d\n", ptsMs);
    if (observer_) {
        observer_->onFirstVideoFrame(ptsMs);
    }
}

void VideoPlayThread::onExit() {
    Log::Debug(kTag, "onExit\n");
    std::lock_guard lock(windowMutex_);
    Log::Debug(kTag, "%s, window info size:%d\n", "onExit", static_cast<int>(windowInfos_.size()));
    for (auto& info : windowInfos_) {
        if (info.render) {
            info.render->close();
        }
    }
    windowInfos_.clear();
}

int64_t VideoPlayThread::getCurrentPts() {
    const int64_t offset = ptsOffset_.load(std::memory_order_relaxed);
    return offset == 0 ? 0 : wrappingAdd(KelpTime::getTimeMs(), offset);
}

int64_t VideoPlayThread::computeDelay(int64_t delay) {
    const auto master = syncObject_.load();
    if (!master) {
        return delay;
    }
    const int64_t curPts = getSyncPts();
    const int64_t syncPts = master->getSyncPts();
    const int64_t early = wrappingSubtract(curPts, syncPts);  // positive: video runs ahead
    const int64_t threshold = std::clamp(delay, kMinSyncThresholdMs, kMaxSyncThresholdMs);
    const int64_t noSync = std::max(kNoSyncThresholdMs, master->getNoSyncThreshold());

    int64_t corrected = delay;
    if (early >= noSync || early <= -noSync) {
        Log::Debug(kTag, "diff:%lld, no sync threshold:%lld, out of sync...\n", static_cast<long long>(early),
                   static_cast<long long>(noSync));
    } else if (early < kLateFrameMs) {
        corrected = kTooLate;
    } else if (early <= -threshold) {
        corrected = std::max<int64_t>(0, wrappingAdd(delay, early));
    } else if (early >= threshold) {
        corrected = master->isForceSync() ? early : wrappingMultiply(2, delay);
    }
    if (!videoPaused_ && corrected != delay) {
        Log::Debug(kTag, "%s, currentPts_:%lld curPts:%lld, syncPts:%lld, early:%lld, delay:%lld->%lld\n",
                   "computeDelay", static_cast<long long>(getCurrentTime()), static_cast<long long>(curPts),
                   static_cast<long long>(syncPts), static_cast<long long>(early), static_cast<long long>(delay),
                   static_cast<long long>(corrected));
    }
    return corrected;
}

void VideoPlayThread::startTiming(int64_t pts, int64_t nowMs) {
    if (ptsOffset_.load(std::memory_order_relaxed) == 0) {
        setCurrentPts(pts, nowMs);
        if (observer_) {
            observer_->onFirstVideoFrame(pts);
        }
    }
    if (resetFrameTimer_.exchange(false) || frameTimer_ == 0) {
        frameTimer_ = nowMs;
        lastFramePts_ = pts;
    }
}

// Waits until `delay` after frameTimer_ and returns the time then; earlier if the wait was broken off.
int64_t VideoPlayThread::waitUntilDue(int64_t delay, int64_t nowMs) {
    const bool skipWait = firstFrameAtOnce_ && !hadOutput_;
    const int64_t dueMs = wrappingAdd(frameTimer_, delay);
    while (nowMs < dueMs) {
        if (isStopRequested() || resetFrameTimer_ || seekStartPending_ || skipWait) {
            break;
        }
        int64_t remaining = wrappingSubtract(dueMs, nowMs);
        if (remaining > kMaxSleepMs) {
            carryOutClearScreen();
            renderFrame(lastFrame_.get());
            remaining = kMaxSleepMs;
        }
        KelpTime::sleepMs(static_cast<int>(remaining));
        nowMs = KelpTime::getTimeMs();
        const int64_t sinceTimer = wrappingSubtract(nowMs, frameTimer_);
        const int64_t offTimer = sinceTimer < 0 ? wrappingSubtract(0, sinceTimer) : sinceTimer;
        if (offTimer > kClockJumpMs && !isForcing(syncObject_.load())) {
            Log::Debug(kTag, "abs(nowMs - frameTimer_) > 5000 : %d\n", static_cast<int>(offTimer));
            break;
        }
    }
    return nowMs;
}

void VideoPlayThread::logIfLate(int64_t pts, int64_t delay, int64_t nowMs) {
    const auto master = syncObject_.load();
    if (videoPaused_ || !master || nowMs <= wrappingAdd(wrappingAdd(frameTimer_, kLateLogMs), delay)) {
        return;
    }
    const int64_t videoPts = getSyncPts();
    const int64_t masterPts = master->getSyncPts();
    Log::Debug(kTag,
               "nowMs:%lld, frameTimer_:%lld, delay:%lld, n-f:%lld, video.syncPts:%lld, master.syncPts:%lld, "
               "diff_pts:%lld, currentPts_:%lld, paused:%d, hadOutput:%d\n",
               static_cast<long long>(nowMs), static_cast<long long>(frameTimer_), static_cast<long long>(delay),
               static_cast<long long>(wrappingSubtract(nowMs, frameTimer_)), static_cast<long long>(videoPts),
               static_cast<long long>(masterPts), static_cast<long long>(wrappingSubtract(pts, lastFramePts_)),
               static_cast<long long>(getCurrentTime()), videoPaused_.load(), hadOutput_.load());
}

// Moves frameTimer_ to where this frame was due. After a stall that is the last whole frame step before now, so that
// the frames that follow don't race to catch up.
void VideoPlayThread::stepFrameTimer(const VideoFrameInfo& frame, int64_t delay, int64_t nowMs) {
    if (nowMs < wrappingAdd(frameTimer_, delay)) {
        int64_t duration;
        {
            std::lock_guard lock(frameMutex_);
            duration = frame.duration;
        }
        Log::Debug(kTag, "set nowMs to frameTimer_, %lld <-> %lld + %lld, pts:%lld, dur:%lld, queue.size:%d\n",
                   static_cast<long long>(nowMs), static_cast<long long>(frameTimer_), static_cast<long long>(delay),
                   static_cast<long long>(frame.pts), static_cast<long long>(duration), getFrameQueueSize());
        frameTimer_ = wrappingSubtract(nowMs, delay);
    }
    if (delay > 0) {
        const int n = countSteps(wrappingSubtract(nowMs, frameTimer_), delay);
        const int count = std::max(n, 1);
        if (count > 1) {
            Log::Debug(kTag, "delayCount:%d n:%d\n", count, n);
        }
        frameTimer_ = wrappingAdd(frameTimer_, wrappingMultiply(count, delay));
    }
    if (isLive_ && !syncObject_.load()) {
        const int64_t renderTimeMs = renderTiming_->renderTime(frame.pts);
        if (renderTimeMs > 0) {
            frameTimer_ = renderTimeMs;
        }
    }
}

bool VideoPlayThread::isTooLate(const VideoFrameInfo& frame, int64_t delay) {
    if (videoPaused_ || delay >= 0 || getFrameQueueSize() < kTooLateMinQueued || frame.pixFormat == PIX_FMT_PACKET) {
        return false;
    }
    const auto master = syncObject_.load();
    Log::Debug(kTag, "skip draw too late frame, pts %lld, syncPts:%lld\n", static_cast<long long>(frame.pts),
               master ? static_cast<long long>(master->getSyncPts()) : -1LL);
    return true;
}

bool VideoPlayThread::isHeldByMaster(int64_t pts) {
    const auto master = syncObject_.load();
    return master && wrappingSubtract(pts, master->getSyncPts()) >= kHoldAheadMs && master->isForceSync();
}

void VideoPlayThread::setCurrentPts(int64_t pts, int64_t nowMs) {
    currentPts_.store(pts, std::memory_order_relaxed);
    ptsOffset_.store(wrappingSubtract(pts, nowMs), std::memory_order_relaxed);
}

void VideoPlayThread::renderFrame(std::shared_ptr<VideoFrameInfo> frame) {
    {
        std::lock_guard lock(windowMutex_);
        closeRemovedWindows();
        collectUpdates();
    }
    // Without the lock, so that slow drawing holds nobody up.
    for (const auto& update : updates_) {
        if (isStopRequested()) {
            break;
        }
        if (update.created) {
            update.render->init(update.type, update.window, update.width, update.height, fps_);
        }
        if (update.newWidth > 0 && update.newHeight > 0) {
            update.render->updateWindowSize(update.newWidth, update.newHeight);
        }
        if (!update.paused) {
            if (frame) {
                update.render->fillFrame(frame);
            }
            update.render->refresh();
        }
    }
    updates_.clear();
}

void VideoPlayThread::closeRemovedWindows() {
    for (auto info = windowInfos_.begin(); info != windowInfos_.end();) {
        if (!info->removed) {
            ++info;
            continue;
        }
        Log::Debug(kTag, "%s, window info size:%d, remove %p\n", "renderFrame", static_cast<int>(windowInfos_.size()),
                   info->window);
        if (info->render) {
            info->render->close();
        }
        info = windowInfos_.erase(info);
    }
}

void VideoPlayThread::collectUpdates() {
    updates_.reserve(windowInfos_.size());
    for (auto& info : windowInfos_) {
        UpdatedWindowInfo update;
        if (info.window && !info.render) {
            Log::Debug(kTag, "%s, window info size:%d, add %p\n", "renderFrame", static_cast<int>(windowInfos_.size()),
                       info.window);
            info.render = VideoRenderFactory::create(info.type);
            update.type = info.type;
            update.window = info.window;
            update.width = info.width;
            update.height = info.height;
            update.created = true;
        }
        if (!info.render) {
            continue;  // of an unknown type, or without a handle
        }
        if (info.width != info.newWidth || info.height != info.newHeight) {
            info.width = update.newWidth = info.newWidth;
            info.height = update.newHeight = info.newHeight;
        }
        update.paused = info.paused;
        update.render = info.render;
        updates_.push_back(std::move(update));
    }
}

void VideoPlayThread::carryOutClearScreen() {
    lastFrame_.carryOutBlanks(std::unique_lock(frameMutex_, std::defer_lock));
}

}  // namespace kelp
