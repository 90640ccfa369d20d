#include "present/video_play_thread.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "clock/wrapping_math.h"
#include "kelp_player/log.h"
#include "present/exact_timing.h"
#include "present/low_delay_timing.h"
#include "present/standard_timing.h"
#include "runtime/kelp_time.h"
#include "subtitle/subtitle_screen.h"

namespace kelp {

constexpr char kTag[] = "VideoPlayThread";
constexpr int64_t kServeUs = 15'000;  // windows are served that often while a frame waits, if they want it
constexpr int64_t kTogetherUs = 5'000;
constexpr int64_t kDryMs = 500;
constexpr int64_t kMaxRestUs = 50'000;  // a window's size and the wall clock may have changed, and nobody tells

namespace {

// How long to rest, kServeUs at most, where a frame waits for `leftUs`. All threads that serve a sink wake at the same
// times, the multiples of kTogetherUs by the steady clock, so that a processor wakes for many of them at once; but for
// one that would rest once more for that.
int64_t restToServe(int64_t leftUs) {
    const int64_t fullUs = std::min(kServeUs, leftUs);
    const int64_t earlierUs = (KelpTime::getSteadyUs() + kServeUs) % kTogetherUs;
    const int64_t spareUs = (kServeUs - leftUs % kServeUs) % kServeUs;
    return leftUs > kServeUs && earlierUs <= spareUs ? fullUs - earlierUs : fullUs;
}

}  // namespace

VideoPlayThread::VideoPlayThread(bool isLive, RenderTiming* renderTiming, const PlaybackOptions& options)
    : BasePlayThread("VideoPlayThread", /*keepFrames=*/0),
      timing_(makeTiming(isLive, renderTiming, options)),
      windows_([this] { return isStopRequested(); }) {
}

std::unique_ptr<PictureTiming> VideoPlayThread::makeTiming(bool isLive, RenderTiming* renderTiming,
                                                           const PlaybackOptions& options) {
    if (options.lowLiveDelay) {
        const auto waiting = [this] {
            return getFrameQueueSize() + (observer_ ? observer_->onVideoPacketQueueSize() : 0);
        };
        return options.exactTiming ? std::make_unique<LowDelayTiming>(waiting, [this] { return otherTimeMs(); })
                                   : std::make_unique<LowDelayTiming>(waiting);
    }
    const auto queueSize = [this] { return getFrameQueueSize(); };
    if (options.exactTiming) {
        return std::make_unique<ExactTiming>(isLive, renderTiming, queueSize);
    }
    return std::make_unique<StandardTiming>(isLive, renderTiming, queueSize);
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

void VideoPlayThread::setSubtitles(std::shared_ptr<SubtitleScreen> subtitles) {
    subtitles_ = subtitles;
    windows_.setSubtitles(std::move(subtitles));
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

void VideoPlayThread::setFit(PictureFit fit) {
    windows_.setFit(fit);
    askToServe();
}

void VideoPlayThread::clearScreen() {
    lastFrame_.requestBlank();
    askToServe();
}

void VideoPlayThread::setSpeed(double speed) {
    timing_->setSpeed(speed);
    endRest();
}

bool VideoPlayThread::isDry() {
    if (!takesOddStreams()) {
        return false;
    }
    const int64_t pts = timing_->clock().pts();
    const int64_t lastPts = getMaxPtsMs();
    return (lastPts >= 0 && pts >= lastPts) ||
           (getFrameQueueSize() == 0 && wrappingSubtract(timing_->positionMs(), pts) >= kDryMs);
}

bool VideoPlayThread::pause(bool paused) {
    Log::Debug(kTag, "pause:%d\n", paused);
    timing_->setPaused(paused);
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
    timing_->follow(std::move(syncObject));
    askToServe();
}

bool VideoPlayThread::onOutput(std::shared_ptr<DecodedFrame> decodedFrame) {
    const auto frame = std::dynamic_pointer_cast<VideoFrameInfo>(decodedFrame);
    if (!frame) {
        return true;
    }
    carryOutClearScreen();
    int64_t nowUs = timing_->nowUs();
    if (std::exchange(isFirstAwaited_, false) || !timing_->clock().hasTime()) {
        timing_->setTime(frame->pts, nowUs);
        if (observer_) {
            observer_->onVeryFirstVideoFrame(frame->pts);
        }
    }
    // An exact seek's picture is shown in any case, and counts from the target on, which lies within it.
    std::optional<VideoFrameInfo> fromTarget;
    if (isLanded(*frame)) {
        fromTarget.emplace();
        fromTarget->pts = startOf(*frame);
        fromTarget->fractionUs = fromTarget->pts == frame->pts ? frame->fractionUs : 0;
        fromTarget->pixFormat = frame->pixFormat;
    }
    const VideoFrameInfo& timed = fromTarget ? *fromTarget : *frame;
    if (subtitles_) {
        subtitles_->prepare(frame->filmMs());
    }
    timing_->begin(timed, nowUs);
    counts_.aheadOfMasterMs.set(timing_->aheadOfMasterMs());
    const auto dueUs = waitUntilDue(nowUs);
    if (!dueUs) {
        return false;
    }
    nowUs = *dueUs;
    timing_->logIfLate(timed, nowUs);
    if (isStopRequested()) {
        return true;
    }
    timing_->step(timed, durationOf(*frame), nowUs);

    if (!fromTarget && timing_->isTooLate(*frame)) {
        timing_->setTime(frame->pts, nowUs);
        counts_.late.add();
        return true;
    }
    const bool held = timing_->isHeld(timed);
    carryOutClearScreen();
    draw(held ? lastFrame_.get() : frame);
    // In a pause the same one comes again and again.
    counts_.repeated.add(held);
    counts_.shown.add(!held && frame != lastFrame_.get());
    if (!held) {
        lastFrame_.set(frame);
    }
    timing_->setDrawn(timed, nowUs);
    return !held;
}

std::optional<int64_t> VideoPlayThread::waitUntilDue(int64_t nowUs) {
    while (!isStopRequested() && !isSeekPending()) {
        const unsigned int changes = timing_->changes();
        const int64_t leftUs = timing_->leftUs(nowUs);
        if (leftUs <= 0) {
            break;
        }
        if (isStepDue()) {
            return std::nullopt;
        }
        if (leftUs > kServeUs) {
            serveAndRest(changes);
        } else {
            restUntilSeek(leftUs, [&] { return timing_->changes() != changes || isStepDue(); });
        }
        nowUs = timing_->nowUs();
        if (timing_->hasClockJumped(nowUs)) {
            break;
        }
    }
    return nowUs;
}

// No request is lost: it is noted before it is asked for, and the flag is cleared before what was noted is served. One
// that comes later finds a rest of kServeUs, or ends the rest, which looks at the flag right before it begins. What
// changes the timing after it was read, which came before, ends each rest.
void VideoPlayThread::serveAndRest(unsigned int changes) {
    const bool wasAsked = serveAsked_.exchange(false);
    carryOutClearScreen();
    const int64_t keptUs = int64_t{draw(lastFrame_.get())} * 1000;
    const int64_t leftUs = timing_->leftUs(timing_->nowUs());
    const int64_t restUs = std::min({std::max(keptUs, kServeUs), kMaxRestUs, leftUs});
    const bool isOften = wasAsked || restUs <= kServeUs;
    const int64_t oftenUs = wasAsked ? std::min(kServeUs, leftUs) : restToServe(leftUs);
    restUntilSeek(isOften ? oftenUs : restUs,
                  [&] { return timing_->changes() != changes || isStepDue() || (!isOften && serveAsked_); });
}

// Where the queue's mutex is held there is no first picture: what is shown then was shown before.
int VideoPlayThread::draw(const std::shared_ptr<VideoFrameInfo>& frame) {
    if (relieve_) {
        if (!frame) {
            return kMaxRestUs / 1000;
        }
        std::exchange(relieve_, nullptr)();
    }
    if (frame) {
        hasDrawn_ = true;
        if (subtitles_) {
            subtitles_->shown(frame->filmMs());
        }
    }
    return windows_.draw(frame, fps_);
}

void VideoPlayThread::askToServe() {
    serveAsked_ = true;
    endRest();
}

// This is what makes new windows, new sizes and a cleared screen show while no frames come. The queue's mutex is held.
void VideoPlayThread::onOutput() {
    lastFrame_.carryOutBlanks(std::unique_lock<std::mutex>());
    draw(lastFrame_.get());
}

void VideoPlayThread::onSeekStart(int seekTimeMs) {
    Log::Debug(kTag, "%s, seekTimeMs:%d\n", "onSeekStart", seekTimeMs);
    isFirstAwaited_ = false;
    timing_->restart();
    // For a step the time stays that of the picture that is shown.
    if (!isStepSeek()) {
        timing_->setTime(seekTimeMs, timing_->nowUs());
    }
}

void VideoPlayThread::onSeekFinish(int ptsMs) {
    Log::Debug(kTag, "onSeekFinish, seekTimeMs:%d\n", ptsMs);
    if (observer_) {
        observer_->onFirstVideoFrame(ptsMs);
    }
}

void VideoPlayThread::onStep(const std::shared_ptr<DecodedFrame>& decodedFrame) {
    const auto frame = std::dynamic_pointer_cast<VideoFrameInfo>(decodedFrame);
    if (!frame) {
        return;
    }
    carryOutClearScreen();
    timing_->restart();
    timing_->setTime(frame->pts, timing_->nowUs());
    draw(frame);
    counts_.shown.add(frame != lastFrame_.get());
    lastFrame_.set(frame);
    if (observer_) {
        observer_->onStepped(frame->pts);
    }
}

void VideoPlayThread::onStepSeek(int seekTimeMs) {
    if (observer_) {
        observer_->onStepSeek(seekTimeMs);
    }
}

bool VideoPlayThread::isSeekUnderWay() const {
    return observer_ && observer_->isSeekUnderWay();
}

int64_t VideoPlayThread::otherTimeMs() {
    return observer_ ? observer_->heardMs() : -1;
}

void VideoPlayThread::onLateStart(int64_t positionMs) {
    isFirstAwaited_ = isFirstAwaited_ || !timing_->clock().hasTime();
    timing_->setTime(positionMs, timing_->nowUs());
    carryOutClearScreen();
    draw(lastFrame_.get());
}

void VideoPlayThread::onExit() {
    Log::Debug(kTag, "onExit\n");
    windows_.closeAll(leaving_);
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
