#include "present/video_play_thread.h"

#include <algorithm>
#include <utility>

#include "clock/wrapping_math.h"
#include "kelp_player/log.h"
#include "runtime/kelp_time.h"

namespace kelp {

constexpr char kTag[] = "VideoPlayThread";
constexpr int kServeMs = 15;  // windows are served that often while a frame waits, if they want it
constexpr int64_t kDryMs = 500;
constexpr int kMaxRestMs = 50;  // a window's size and the wall clock may have changed, and nobody tells

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

bool VideoPlayThread::start(int fps) {
    fps_ = fps;
    return BasePlayThread::start();
}

bool VideoPlayThread::addWindow(WindowType type, void* window, int width, int height) {
    windows_.add(type, window, width, height);
    askToServe();
    return true;
}

bool VideoPlayThread::removeWindow(void* window) {
    windows_.remove(window);
    askToServe();
    return true;
}

bool VideoPlayThread::pauseWindow(void* window, bool pause) {
    windows_.pause(window, pause);
    askToServe();
    return true;
}

void VideoPlayThread::updateWindowSize(void* window, int width, int height) {
    windows_.resize(window, width, height);
    askToServe();
}

void VideoPlayThread::clearScreen() {
    lastFrame_.requestBlank();
    askToServe();
}

bool VideoPlayThread::isDry() {
    if (!takesOddStreams()) {
        return false;
    }
    const int64_t pts = timing_.clock().pts();
    const int64_t lastPts = getMaxPtsMs();
    return (lastPts >= 0 && pts >= lastPts) ||
           (getFrameQueueSize() == 0 && wrappingSubtract(timing_.clock().read(), pts) >= kDryMs);
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

void VideoPlayThread::setSyncObject(std::shared_ptr<SyncObject> syncObject) {
    timing_.follow(std::move(syncObject));
    askToServe();
}

bool VideoPlayThread::onOutput(std::shared_ptr<DecodedFrame> decodedFrame) {
    const auto frame = std::dynamic_pointer_cast<VideoFrameInfo>(decodedFrame);
    if (!frame) {
        return true;
    }
    carryOutClearScreen();
    int64_t nowMs = KelpTime::getTimeMs();
    if (std::exchange(isFirstAwaited_, false) || !timing_.clock().hasTime()) {
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
        if (const int64_t remaining = wrappingSubtract(timing_.dueMs(), nowMs); remaining > kServeMs) {
            serveAndRest();
        } else {
            restUntilSeek(static_cast<int>(remaining));
        }
        nowMs = KelpTime::getTimeMs();
        if (timing_.hasClockJumped(nowMs)) {
            break;
        }
    }
    return nowMs;
}

// No request is lost: it is noted before it is asked for, and the flag is cleared before what was noted is served. One
// that comes later finds a rest of kServeMs, or ends the rest, which looks at the flag right before it begins.
void VideoPlayThread::serveAndRest() {
    const bool wasAsked = serveAsked_.exchange(false);
    carryOutClearScreen();
    const int64_t keptMs = windows_.draw(lastFrame_.get(), fps_);
    const int64_t restMs =
        std::min({keptMs, int64_t{kMaxRestMs}, wrappingSubtract(timing_.dueMs(), KelpTime::getTimeMs())});
    if (wasAsked || restMs <= kServeMs) {
        restUntilSeek(kServeMs);
    } else {
        restUntilSeek(static_cast<int>(restMs), [this] { return serveAsked_.load(); });
    }
}

void VideoPlayThread::askToServe() {
    serveAsked_ = true;
    endRest();
}

// This is what makes new windows, new sizes and a cleared screen show while no frames come. The queue's mutex is held.
void VideoPlayThread::onOutput() {
    lastFrame_.carryOutBlanks(std::unique_lock<std::mutex>());
    windows_.draw(lastFrame_.get(), fps_);
}

void VideoPlayThread::onSeekStart(int seekTimeMs) {
    Log::Debug(kTag, "%s, seekTimeMs:%d\n", "onSeekStart", seekTimeMs);
    isFirstAwaited_ = false;
    timing_.restart();
    timing_.clock().set(seekTimeMs, KelpTime::getTimeMs());
}

void VideoPlayThread::onSeekFinish(int ptsMs) {
    Log::Debug(kTag, "onSeekFinish, seekTimeMs:%d\n", ptsMs);
    if (observer_) {
        observer_->onFirstVideoFrame(ptsMs);
    }
}

void VideoPlayThread::onLateStart(int64_t positionMs) {
    isFirstAwaited_ = isFirstAwaited_ || !timing_.clock().hasTime();
    timing_.clock().set(positionMs, KelpTime::getTimeMs());
    carryOutClearScreen();
    windows_.draw(lastFrame_.get(), fps_);
}

void VideoPlayThread::onExit() {
    Log::Debug(kTag, "onExit\n");
    windows_.closeAll();
}

void VideoPlayThread::onFramesTaken(int left) {
    if (observer_) {
        observer_->onVideoFramesTaken(left);
    }
}

void VideoPlayThread::carryOutClearScreen() {
    lastFrame_.carryOutBlanks(queueLock());
}

}  // namespace kelp
