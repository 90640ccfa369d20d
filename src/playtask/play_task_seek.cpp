#include <utility>

#include "kelp_player/log.h"
#include "playtask/play_task.h"

// Seeking: what starts one, what waits for its end, and how it passes through the stages.

namespace kelp {

bool PlayTask::seek(int seekTimeMs) {
    std::lock_guard lock(seekRunMutex_);
    return startSeek(seekTimeMs);
}

bool PlayTask::startSeek(int seekTimeMs) {
    Log::Info(kTag, "%s, seekTimeMs:%d, seekable:%d\n", "seek", seekTimeMs, seekable_.load());
    if (!seekable_) {
        return false;
    }
    seekTimeMs = clampToDuration(seekTimeMs);
    if (parkSeek(seekTimeMs)) {
        return true;
    }
    if (seekInFrameQueues(seekTimeMs)) {
        return true;
    }
    seekingTimeMs_ = seekTimeMs;
    isSeeking_ = true;
    if (seekInPacketQueues(seekTimeMs)) {
        return true;
    }
    return streamParser_ && streamParser_->seek(seekTimeMs);
}

int PlayTask::clampToDuration(int seekTimeMs) const {
    if (seekTimeMs < 0) {
        return 0;
    }
    const int64_t durationMs = durationMs_;
    return durationMs >= 1 && seekTimeMs > durationMs ? static_cast<int>(durationMs) : seekTimeMs;
}

bool PlayTask::parkSeek(int seekTimeMs) {
    if (!isSeeking_) {
        return false;
    }
    std::lock_guard lock(seekMutex_);
    // The seek may have ended and looked at the queue since: nobody would come for this request then.
    if (!isSeeking_) {
        return false;
    }
    Log::Debug(kTag, "%s, seekTimeMs:%d, reqQueue.size:%d, now is seeking...\n", "seek", seekTimeMs,
               static_cast<int>(seekQueue_.size()));
    if (seekQueue_.empty() || seekQueue_.back() != seekTimeMs) {
        seekQueue_.push_back(seekTimeMs);
    }
    return true;
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
    seekReachedDecodeQueue_ = false;
    if (videoDecode) {
        if (!videoDecode->checkBuffer(seekTimeMs)) {
            return false;
        }
        videoDecode->clearBuffer(seekTimeMs);
        // The thread may have taken the last packet since: no play thread knows of the seek then, and nothing would
        // end it.
        if (!seekReachedDecodeQueue_) {
            return false;
        }
        if (audioDecode) {
            audioDecode->clearBuffer(seekTimeMs);
        }
        return true;
    }
    if (!audioDecode || !audioDecode->checkBuffer(seekTimeMs)) {
        return false;
    }
    audioDecode->clearBuffer(seekTimeMs);
    return seekReachedDecodeQueue_;
}

void PlayTask::onSeekStart(int seekTimeMs) {
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
    if (!flush) {
        seekReachedDecodeQueue_ = true;
    }
    if (const auto videoPlay = videoPlayThread_.load()) {
        videoPlay->seek(seekTimeMs, flush);
    }
}

void PlayTask::onAudioDecodeSeek(int seekTimeMs, bool flush) {
    if (!flush) {
        seekReachedDecodeQueue_ = true;
    }
    if (const auto audioPlay = audioPlayThread_.load()) {
        audioPlay->seek(seekTimeMs, flush);
    }
}

void PlayTask::finishSeek(int64_t framePtsMs) {
    if (const auto clock = masterClock_.load()) {
        clock->save(framePtsMs);
        clock->restore();
    }
    // Before the queue is looked at: a request that still finds the flag under seekMutex_ is in the queue by then.
    isSeeking_ = false;
    processBufferedSeekRequest();
}

void PlayTask::processBufferedSeekRequest() {
    std::lock_guard lock(seekMutex_);
    if (seekQueue_.empty()) {
        return;
    }
    const int target = seekQueue_.back();
    const int count = static_cast<int>(seekQueue_.size());
    seekQueue_.clear();
    Log::Debug(kTag, "%s, startSeek seekTimeMs:%d, queueSize:%d\n", "processBufferedSeekRequest", target, count);
    // Not on this thread: it is a play thread that holds its queue mutex.
    worker_->task([weakTask = std::weak_ptr<PlayTask>(shared_from_this()), target, generation = seekGeneration_] {
        if (const auto task = weakTask.lock()) {
            task->replaySeek(target, generation);
        }
    });
}

void PlayTask::replaySeek(int seekTimeMs, unsigned int generation) {
    std::lock_guard lock(seekRunMutex_);
    {
        // A stop in between has dropped the request; what is open now may be another source.
        std::lock_guard queueLock(seekMutex_);
        if (generation != seekGeneration_) {
            return;
        }
    }
    startSeek(seekTimeMs);
}

}  // namespace kelp
