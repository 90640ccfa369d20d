#include <algorithm>
#include <limits>

#include "kelp_player/log.h"
#include "playtask/play_task.h"

// Steps from picture to picture in a pause. The play thread makes them; what it doesn't have comes by an exact seek to
// right before the picture that is shown. The sound follows from afar, and begins at the picture with a resume.

namespace kelp {

bool PlayTask::stepFrame(int pictures) {
    const auto videoPlay = videoPlayThread_.load();
    // Not of pictures that stand for want of data, nor while a resume is on its way.
    std::unique_lock lock(pauseMutex_);
    const bool isHostsPause = isPaused_ && resume_ == Resume::None;
    const char* const obstacle = !videoPlay || !videoPlay->isPaused() || !isHostsPause ? "no picture is paused"
                                 : pictures < 0 && !seekable_                          ? "the source can't go back"
                                                                                       : nullptr;
    if (obstacle) {
        lock.unlock();
        Log::Warn(kTag, "%s, %s\n", "stepFrame", obstacle);
        return false;
    }
    hasStepped_ = isSoundApart_ = true;
    lock.unlock();
    videoPlay->step(pictures);
    return true;
}

void PlayTask::dropSteps() {
    if (const auto videoPlay = videoPlayThread_.load()) {
        videoPlay->dropSteps();
    }
}

void PlayTask::dropStepOfSeek() {
    if (seekFor_ == SeekFor::Step) {
        dropSteps();
    }
}

void PlayTask::onStepped(int64_t framePtsMs) {
    const int pts = static_cast<int>(std::clamp<int64_t>(framePtsMs, 0, std::numeric_limits<int>::max()));
    const auto audioPlay = audioPlayThread_.load();
    const auto audioDecode = audioDecodeThread_.load();
    // Sound that stayed behind would fill the queues.
    if (!audioPlay || !audioDecode || !audioPlay->holdsFrom(pts - 2 * kStepsBackMs)) {
        return;
    }
    const int fromMs = pts - kStepsBackMs;
    isSoundOfStep_ = true;
    audioPlay->setSeekRule(SeekRule::Exact);
    audioPlay->seek(fromMs, /*needFlush=*/false);
    audioDecode->skipTo(fromMs);
}

void PlayTask::onStepSeek(int seekTimeMs) {
    worker_->task([weakTask = std::weak_ptr<PlayTask>(shared_from_this()), seekTimeMs] {
        if (const auto task = weakTask.lock()) {
            task->seekForStep(seekTimeMs);
        }
    });
}

void PlayTask::seekForStep(int seekTimeMs) {
    std::lock_guard lock(seekRunMutex_);
    const auto videoPlay = videoPlayThread_.load();
    if (!videoPlay || !videoPlay->isStepAwaited(seekTimeMs)) {
        return;
    }
    // A seek of the host's has the say.
    const int64_t shiftMs = streamParser_->loop().shiftMs(seekTimeMs);
    if (!seekTurns_.isIdle() || !startSeek(seekTimeMs, SeekRule::Exact, SeekFor::Step, shiftMs)) {
        videoPlay->dropSteps();
    }
}

// Each seek that runs comes to an end, and to resumeBehindSeek with it. Sound and pictures stand until then: what they
// hold is to be played no more.
bool PlayTask::seekBehindSteps() {
    std::lock_guard lock(seekRunMutex_);
    const auto videoPlay = videoPlayThread_.load();
    if (!videoPlay) {
        return false;
    }
    videoPlay->dropSteps();
    // A seek of the host's goes on by itself, and so does what has shown nothing yet.
    const bool isHostsTurn = !seekTurns_.isIdle() && (seekFor_ != SeekFor::Step || seekTurns_.hasNext());
    if (!seekable_ || isHostsTurn || !videoPlay->hasShown()) {
        return false;
    }
    {
        std::lock_guard pauseLock(pauseMutex_);
        resume_ = Resume::Starting;
        streamParser_->pause(false);
    }
    const int timeMs = static_cast<int>(filmMs(videoPlay->getCurrentTime()));
    const bool isIdle = seekTurns_.isIdle();
    if (isIdle) {
        seekFor_ = SeekFor::Resume;
    }
    // Where the input goes back, pictures may be there before the sound is told.
    if (const auto audioPlay = audioPlayThread_.load();
        audioPlay && isIdle && (isBent() || !audioPlay->holdsFrom(timeMs))) {
        audioPlay->setSeekRule(SeekRule::Exact);
        audioPlay->seek(timeMs, /*needFlush=*/true);
    }
    // Behind one of a step it waits for that to end.
    isResumeParked_ = !isIdle;
    const bool isStarted = startSeek(timeMs, SeekRule::Exact, SeekFor::Resume);
    std::lock_guard pauseLock(pauseMutex_);
    if (resume_ == Resume::Over) {
        resumeStages();
    } else if (resume_ == Resume::Starting) {
        resume_ = Resume::BehindSeek;
    }
    return isStarted;
}

void PlayTask::resumeBehindSeek() {
    if (loop_.isAnyUnlooped()) {
        postLoopSeek();
    }
    std::lock_guard lock(pauseMutex_);
    if (resume_ == Resume::BehindSeek) {
        resumeStages();
    } else if (resume_ == Resume::Starting && seekFor_ == SeekFor::Resume) {
        resume_ = Resume::Over;  // the sound isn't told of the seek yet
    }
}

}  // namespace kelp
