#include "present/video_play_thread.h"

#include <utility>

#include "clock/wrapping_math.h"
#include "kelp_player/log.h"
#include "runtime/kelp_time.h"

namespace kelp {

namespace {

constexpr char kTag[] = "VideoPlayThread";
constexpr int64_t kNoSyncThresholdMs = 10000;
constexpr int64_t kMaxRestMs = 15;  // so that windows stay served while a frame waits

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

bool VideoPlayThread::pause(bool paused) {
    Log::Debug(kTag, "pause:%d\n", paused);
    timing_.setPaused(paused);
    return BasePlayThread::pause(paused);
}

void VideoPlayThread::seek(int seekTimeMs, bool needFlush) {
    Log::Debug(kTag, "%s, seekTimeMs:%d\n", "seek", seekTimeMs);
    BasePlayThread::seek(seekTimeMs, needFlush);
}

bool VideoPlayThread::checkBuffer(int seekTimeMs) {
    Log::Debug(kTag, "%s, seekTimeMs:%d\n", "checkBuffer", seekTimeMs);
    return BasePlayThread::checkBuffer(seekTimeMs);
}

bool VideoPlayThread::clearBuffer(int seekTimeMs) {
    Log::Debug(kTag, "%s, seekTimeMs:%d\n", "clearBuffer", seekTimeMs);
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
    while (!timing_.isDue(nowMs) && !isStopRequested() && !isSeekPending()) {
        int64_t remaining = wrappingSubtract(timing_.dueMs(), nowMs);
        if (remaining > kMaxRestMs) {
            carryOutClearScreen();
            windows_.draw(lastFrame_.get(), fps_);
            remaining = kMaxRestMs;
        }
        restUntilSeek(static_cast<int>(remaining));
        nowMs = KelpTime::getTimeMs();
        if (timing_.hasClockJumped(nowMs)) {
            break;
        }
    }
    return nowMs;
}

// This is what makes new windows, new sizes and a cleared screen show while no frames come. The queue's mutex is held.
void VideoPlayThread::onOutput() {
    lastFrame_.carryOutBlanks(std::unique_lock<std::mutex>());
    windows_.draw(lastFrame_.get(), fps_);
}

void VideoPlayThread::onSeekStart(int seekTimeMs) {
    Log::Debug(kTag, "%s, seekTimeMs:%d\n", "onSeekStart", seekTimeMs);
    timing_.restart();
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
    lastFrame_.carryOutBlanks(queueLock());
}

}  // namespace kelp
