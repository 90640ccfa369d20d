#include <algorithm>

#include "kelp_player/log.h"
#include "playtask/play_task.h"

// Seeking: what starts one, what waits for its end, and how it passes through the stages.

namespace kelp {

bool PlayTask::seek(int seekTimeMs) {
    logSeek(seekTimeMs);
    if (hasStepped_.exchange(false)) {
        dropSteps();
    }
    isResumeParked_ = false;
    // One that only waits isn't held up by the one that is on its way to the stages.
    if (seekable_ && seekTurns_.park(clampToLoop(seekTimeMs))) {
        isResumeParked_ = false;
        return true;
    }
    std::lock_guard lock(seekRunMutex_);
    return startSeek(seekTimeMs);
}

void PlayTask::logSeek(int seekTimeMs) const {
    Log::Info(kTag, "%s, seekTimeMs:%d, seekable:%d\n", "seek", seekTimeMs, seekable_.load());
}

bool PlayTask::startSeek(int seekTimeMs) {
    return startSeek(clampToLoop(seekTimeMs), options().seekRule, SeekFor::Host);
}

bool PlayTask::startSeek(int seekTimeMs, SeekRule rule, SeekFor seekFor, int64_t shiftMs) {
    if (!seekable_) {
        return false;
    }
    seekTurns_.setRule(rule);
    if (seekTurns_.request(seekTimeMs)) {
        return true;
    }
    seekFor_ = seekFor;
    forgetSoundTold();
    if (seekFor == SeekFor::Host) {
        isSoundOfStep_ = false;
    }
    // In the queues of a loop the same time may stand twice; a step means that on the line.
    const bool isLineKnown = seekFor == SeekFor::Step || (seekFor != SeekFor::Loop && !isBent());
    const bool isInQueues = isLineKnown && (rule == SeekRule::Exact || !isSoundAway(seekTimeMs));
    if (rule == SeekRule::Standard && isInQueues && seekInFrameQueues(seekTimeMs)) {
        seekTurns_.served();
        resumeBehindSeek();
        return true;
    }
    seekTurns_.start(seekTimeMs);
    if (seekFor == SeekFor::Host) {
        isPictureOwed_ = isSoundOwed_ = true;
    }
    const bool isQueued =
        isInQueues && (rule == SeekRule::Standard ? seekInPacketQueues(seekTimeMs) : seekInQueues(seekTimeMs));
    return isQueued || (streamParser_ && streamParser_->seek(seekTimeMs, rule, shiftMs));
}

int PlayTask::clampToDuration(int seekTimeMs) const {
    if (seekTimeMs < 0) {
        return 0;
    }
    const int64_t durationMs = durationMs_;
    return durationMs >= 1 && seekTimeMs > durationMs ? static_cast<int>(durationMs) : seekTimeMs;
}

bool PlayTask::isSoundAway(int seekTimeMs) const {
    const auto audioPlay = audioPlayThread_.load();
    return isSoundApart_ && audioPlay && !audioPlay->holdsFrom(seekTimeMs);
}

bool PlayTask::seekInFrameQueues(int seekTimeMs) {
    const auto videoPlay = videoPlayThread_.load();
    const auto audioPlay = audioPlayThread_.load();
    if (videoPlay) {
        // Video decides; audio follows without a test of its own.
        if (!videoPlay->checkBuffer(seekTimeMs)) {
            return false;
        }
        videoPlay->clearBuffer(seekTimeMs);
        if (audioPlay) {
            audioPlay->clearBuffer(seekTimeMs);
        }
        return true;
    }
    if (!audioPlay || !audioPlay->checkBuffer(seekTimeMs)) {
        return false;
    }
    audioPlay->clearBuffer(seekTimeMs);
    return true;
}

bool PlayTask::seekInPacketQueues(int seekTimeMs) {
    const auto videoDecode = videoDecodeThread_.load();
    const auto audioDecode = audioDecodeThread_.load();
    // Between the question and the order the thread may take its last packet: no play thread knows of the seek then,
    // and nothing would end it.
    const auto reaches = [seekTimeMs](auto& decode) {
        return decode.checkBuffer(seekTimeMs) && decode.clearBuffer(seekTimeMs);
    };
    if (videoDecode) {
        if (!reaches(*videoDecode)) {
            return false;
        }
        if (audioDecode) {
            audioDecode->clearBuffer(seekTimeMs);
        }
    } else if (!audioDecode || !reaches(*audioDecode)) {
        return false;
    }
    return seekTurns_.isTaken();
}

bool PlayTask::seekInQueues(int seekTimeMs) {
    const auto videoPlay = videoPlayThread_.load();
    const auto audioPlay = audioPlayThread_.load();
    const auto videoDecode = videoDecodeThread_.load();
    const auto audioDecode = audioDecodeThread_.load();
    const auto reaches = [seekTimeMs](auto& play, auto& decode) {
        return play->checkBuffer(seekTimeMs) ||
               (decode && (decode->checkBuffer(seekTimeMs) || decode->endsBehind(seekTimeMs)));
    };
    // What came too late is missing between those that wait.
    if (videoDecode && videoDecode->isLeftOut(seekTimeMs)) {
        return false;
    }
    // What has left a queue since the look has gone on to the next one.
    const auto seekIn = [&](auto& play, auto& decode) {
        play->setSeekRule(SeekRule::Exact);
        const bool isFound = play->seekInQueue(seekTimeMs, [this] { seekTurns_.arrived(); });
        if (isFound && decode) {
            decode->skipTo(seekTimeMs);
        }
        return isFound;
    };
    if (!videoPlay) {
        return audioPlay && reaches(audioPlay, audioDecode) && seekIn(audioPlay, audioDecode);
    }
    if (!reaches(videoPlay, videoDecode) || (audioPlay && !audioPlay->holdsFrom(seekTimeMs)) ||
        !seekIn(videoPlay, videoDecode)) {
        return false;
    }
    if (audioPlay) {
        audioPlay->setSeekRule(SeekRule::Exact);
        audioPlay->seek(seekTimeMs, /*needFlush=*/false);
        if (audioDecode) {
            audioDecode->skipTo(seekTimeMs);
        }
    }
    return true;
}

void PlayTask::onSeekStart(int seekTimeMs) {
    seekTurns_.taken();
    loop_.dropUnlooped();
    isShowing_ = false;
    isSoundApart_ = isSoundApart_ && seekFor_ == SeekFor::Step;
    if (const auto videoDecode = videoDecodeThread_.load()) {
        videoDecode->seek(seekTimeMs);
    }
    if (const auto audioDecode = audioDecodeThread_.load()) {
        audioDecode->seek(seekTimeMs);
    }
}

void PlayTask::onSeekCompleted() {
    // The first frame ends a seek, not the demuxer.
}

void PlayTask::onVideoDecodeSeek(int seekTimeMs, bool flush) {
    if (const auto videoPlay = videoPlayThread_.load()) {
        videoPlay->setSeekRule(seekTurns_.rule());
        seekTurns_.arrived();
        videoPlay->seek(seekTimeMs, flush);
    }
}

void PlayTask::onAudioDecodeSeek(int seekTimeMs, bool flush) {
    // Video, where there is any, ends the seek.
    if (!videoPlayThread_.load()) {
        seekTurns_.arrived();
    }
    if (const auto audioPlay = audioPlayThread_.load()) {
        audioPlay->setSeekRule(seekTurns_.rule());
        // From where a step back among the pictures that are there may lead.
        audioPlay->seek(seekFor_ == SeekFor::Step ? std::max(seekTimeMs - kStepsBackMs, 0) : seekTimeMs, flush);
    }
}

void PlayTask::finishSeek(int64_t framePtsMs, SeekTurns::FrameOf of) {
    if (const auto clock = masterClock_.load()) {
        clock->rebase(of == SeekTurns::FrameOf::Seek ? seekTurns_.positionAt(framePtsMs) : framePtsMs);
    }
    if (const auto next = seekTurns_.firstFrame(of)) {
        postReplay(*next);
    } else {
        resumeBehindSeek();
    }
}

bool PlayTask::endSeeks(bool (SeekTurns::*ending)()) {
    const bool isTold = (seekTurns_.*ending)();
    dropStepOfSeek();
    if (const auto next = seekTurns_.newest()) {
        postReplay(*next);
    } else {
        resumeBehindSeek();
    }
    return isTold;
}

void PlayTask::postReplay(SeekTurns::Next next) {
    // Not on this thread: it is a play thread that holds its queue mutex.
    worker_->task([weakTask = std::weak_ptr<PlayTask>(shared_from_this()), next] {
        if (const auto task = weakTask.lock()) {
            task->replaySeek(next);
        }
    });
}

void PlayTask::replaySeek(SeekTurns::Next next) {
    std::lock_guard lock(seekRunMutex_);
    if (seekTurns_.isDue(next.turn)) {
        logSeek(next.timeMs);
        if (isResumeParked_.exchange(false)) {
            startSeek(next.timeMs, SeekRule::Exact, SeekFor::Resume);
        } else {
            startSeek(next.timeMs);
        }
    }
}

}  // namespace kelp
