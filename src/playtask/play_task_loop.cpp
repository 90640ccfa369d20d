#include <algorithm>
#include <limits>

#include "kelp_player/log.h"
#include "playtask/play_task.h"

// Loops: what is asked for, and the seek into one whose end was read before it was set. The parser goes round, and the
// stages see one line of time that grows; what the host is told is the film's time.

namespace kelp {

bool PlayTask::setLoop(int startMs, int endMs) {
    const Loop loop{std::max(startMs, 0), endMs == std::numeric_limits<int>::max() ? Loop::kFilmEnd : endMs};
    std::lock_guard lock(seekRunMutex_);
    if (const char* const obstacle = obstacleTo(loop)) {
        Log::Warn(kTag, "%s, %s\n", "setLoop", obstacle);
        return false;
    }
    wantLoop(loop);
    return true;
}

void PlayTask::clearLoop() {
    std::lock_guard lock(seekRunMutex_);
    wantLoop(std::nullopt);
}

void PlayTask::wantLoop(std::optional<Loop> loop) {
    std::lock_guard lock(optionsMutex_);
    loop_ = loop;
    if (isRead_) {
        playLoop();
    }
}

void PlayTask::playLoop() {
    playedLoop_ = loop_;
    streamParser_->setLoop(loop_);
}

void PlayTask::startLoop() {
    std::lock_guard lock(optionsMutex_);
    if (!loop_) {
        return;
    }
    if (const char* const obstacle = obstacleTo(*loop_)) {
        Log::Warn(kTag, "%s, %s\n", "setLoop", obstacle);
        return;
    }
    playLoop();
}

const char* PlayTask::obstacleTo(const Loop& loop) {
    if (loop.endMs <= loop.startMs) {
        return "its end isn't behind its start";
    }
    const auto streamInfo = streamInfo_.load();
    if (!streamInfo) {
        return nullptr;
    }
    if (streamInfo->is_live || !streamInfo->seekable) {
        return "the source can't go back";
    }
    if (const int64_t durationMs = durationMs_; durationMs > 0 && loop.startMs >= durationMs) {
        return "it begins at the film's end or behind it";
    }
    const int fps = detail_.read(0).fps;
    const bool isShort = loop.endMs != Loop::kFilmEnd && fps > 0 && (loop.endMs - loop.startMs) * fps < 1000;
    return isShort ? "it is shorter than a picture" : nullptr;
}

int PlayTask::clampToLoop(int seekTimeMs) {
    const int targetMs = clampToDuration(seekTimeMs);
    std::lock_guard lock(optionsMutex_);
    const bool isIn = !playedLoop_ || targetMs < playedLoop_->endMs || streamParser_->loop().isGivenUp();
    return isIn ? targetMs : static_cast<int>(playedLoop_->startMs);
}

int PlayTask::clampLoadTime(int seekTimeMs) {
    std::lock_guard lock(optionsMutex_);
    return loop_ && seekTimeMs >= loop_->endMs ? static_cast<int>(loop_->startMs) : seekTimeMs;
}

void PlayTask::onLoopChanged(int64_t lineMs) {
    int64_t known = unloopedToMs_;
    while (known < lineMs && !unloopedToMs_.compare_exchange_weak(known, lineMs)) {
    }
    postLoopSeek();
}

void PlayTask::postLoopSeek() {
    worker_->task([weakTask = std::weak_ptr<PlayTask>(shared_from_this())] {
        if (const auto task = weakTask.lock()) {
            task->seekIntoLoop();
        }
    });
}

// It was noted ahead of the look at the seek that runs, and whoever ends one looks for it behind that: it isn't missed.
// A seek that is pending in the parser makes it void when it begins, as all is read anew from there. The host's may be,
// though none runs: a frame from before it may have ended it.
void PlayTask::seekIntoLoop() {
    std::lock_guard lock(seekRunMutex_);
    if (!isRead_ || !seekable_ || !seekTurns_.isIdle() || !hasBegun_ || streamParser_->isSeekPending()) {
        return;
    }
    const int64_t lineMs = lineTimeMs();
    if (lineMs < unloopedToMs_.exchange(std::numeric_limits<int64_t>::min())) {
        const int targetMs = clampToLoop(static_cast<int>(filmMs(lineMs)));
        startSeek(static_cast<int>(lineMs), SeekRule::Exact, SeekFor::Loop, lineMs - targetMs);
    }
}

}  // namespace kelp
