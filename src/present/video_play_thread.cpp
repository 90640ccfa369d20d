#include "present/video_play_thread.h"

#include <utility>

#include "clock/wrapping_math.h"
#include "kelp_player/log.h"
#include "runtime/kelp_time.h"

namespace kelp {

namespace {

constexpr char kTag[] = "VideoPlayThread";
constexpr int64_t kNoSyncThresholdMs = 10000;
constexpr int64_t kMaxSleepMs = 15;  // so that windows stay served while a frame waits

}  // namespace

VideoPlayThread::VideoPlayThread(bool isLive, RenderTiming* renderTiming)
    : BasePlayThread("VideoPlayThread", /*keepFrames=*/0),
      timing_(isLive, renderTiming, [this] { return getFrameQueueSize(); }),
      windows_([this] { return isStopRequested(); }) {
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
    windows_.add(type, window, width, height);
    return true;
}

bool VideoPlayThread::removeWindow(void* window) {
    windows_.remove(window);
    return true;
}

bool VideoPlayThread::pauseWindow(void* window, bool pause) {
    windows_.pause(window, pause);
    return true;
}

void VideoPlayThread::updateWindowSize(void* window, int width, int height) {
    windows_.resize(window, width, height);
}

void VideoPlayThread::clearScreen() {
    lastFrame_.requestBlank();
}

int64_t VideoPlayThread::getCurrentTime() {
    return timing_.clock().pts();
}

int VideoPlayThread::fillFrame(std::shared_ptr<DecodedFrame> frame) {
    std::lock_guard lock(frameMutex_);
    return BasePlayThread::fillFrame(std::move(frame));
}

bool VideoPlayThread::pause(bool paused) {
    Log::Debug(kTag, "pause:%d\n", paused);
    timing_.setPaused(paused);
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

int64_t VideoPlayThread::getNoSyncThreshold() {
    return kNoSyncThresholdMs;
}

bool VideoPlayThread::isForceSync() {
    return false;
}

int64_t VideoPlayThread::getSyncPts() {
    return timing_.clock().read();
}

void VideoPlayThread::setSyncObject(std::shared_ptr<SyncObject> syncObject) {
    timing_.follow(std::move(syncObject));
}

bool VideoPlayThread::onOutput(std::shared_ptr<DecodedFrame> decodedFrame) {
    const auto frame = std::dynamic_pointer_cast<VideoFrameInfo>(decodedFrame);
    if (!frame) {
        return true;
    }
    carryOutClearScreen();
    int64_t nowMs = KelpTime::getTimeMs();
    if (!timing_.clock().hasTime()) {
        timing_.clock().set(frame->pts, nowMs);
        if (observer_) {
            observer_->onFirstVideoFrame(frame->pts);
        }
    }
    if (resetFrameTimer_.exchange(false)) {
        timing_.restart();
    }
    timing_.begin(frame->pts, nowMs);
    nowMs = waitUntilDue(nowMs);
    timing_.logIfLate(frame->pts, nowMs);
    if (isStopRequested()) {
        return true;
    }
    timing_.step(frame->pts, durationOf(*frame), nowMs);

    if (timing_.isTooLate(*frame)) {
        timing_.clock().set(frame->pts, nowMs);
        return true;
    }
    const bool held = timing_.isHeld(frame->pts);
    carryOutClearScreen();
    windows_.draw(held ? lastFrame_.get() : frame, fps_);
    if (!held) {
        lastFrame_.set(frame);
    }
    timing_.setDrawn(frame->pts, nowMs);
    return !held;
}

int64_t VideoPlayThread::waitUntilDue(int64_t nowMs) {
    while (!timing_.isDue(nowMs) && !isStopRequested() && !resetFrameTimer_ && !seekStartPending_) {
        int64_t remaining = wrappingSubtract(timing_.dueMs(), nowMs);
        if (remaining > kMaxSleepMs) {
            carryOutClearScreen();
            windows_.draw(lastFrame_.get(), fps_);
            remaining = kMaxSleepMs;
        }
        KelpTime::sleepMs(static_cast<int>(remaining));
        nowMs = KelpTime::getTimeMs();
        if (timing_.hasClockJumped(nowMs)) {
            break;
        }
    }
    return nowMs;
}

// This is what makes new windows, new sizes and a cleared screen show while no frames come. frameMutex_ is not to be
// taken here, within the queue's mutex; nothing is queued, so that nobody else sees the frame.
void VideoPlayThread::onOutput() {
    lastFrame_.carryOutBlanks(std::unique_lock<std::mutex>());
    windows_.draw(lastFrame_.get(), fps_);
}

void VideoPlayThread::onSeekStart(int seekTimeMs) {
    Log::Debug(kTag, "%s, seekTimeMs:%d\n", "onSeekStart", seekTimeMs);
    {
        // `seek` may not have returned yet.
        std::lock_guard lock(frameMutex_);
        seekStartPending_ = false;
    }
    resetFrameTimer_ = true;  // a frame from before the seek may have used up what `seek` set
    timing_.clock().set(seekTimeMs, KelpTime::getTimeMs());
}

void VideoPlayThread::onSeekFinish(int ptsMs) {
    Log::Debug(kTag, "onSeekFinish, seekTimeMs:%d\n", ptsMs);
    if (observer_) {
        observer_->onFirstVideoFrame(ptsMs);
    }
}

void VideoPlayThread::onExit() {
    Log::Debug(kTag, "onExit\n");
    windows_.closeAll();
}

void VideoPlayThread::carryOutClearScreen() {
    lastFrame_.carryOutBlanks(std::unique_lock(frameMutex_, std::defer_lock));
}

}  // namespace kelp
