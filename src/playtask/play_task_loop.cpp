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
    loop_.want(loop);
    if (isRead_) {
        streamParser_->setLoop(loop_.play());
    }
}

void PlayTask::startLoop() {
    const auto loop = loop_.wanted();
    if (!loop) {
        return;
    }
    if (const char* const obstacle = obstacleTo(*loop)) {
        Log::Warn(kTag, "%s, %s\n", "setLoop", obstacle);
        return;
    }
    streamParser_->setLoop(loop_.play());
}

const char* PlayTask::obstacleTo(const Loop& loop) {
    std::optional<WantedLoop::Film> film;
    if (const auto streamInfo = streamInfo_.load()) {
        film = {!streamInfo->is_live && streamInfo->seekable, durationMs_, detail_.read(0).fps};
    }
    return WantedLoop::obstacleTo(loop, film);
}

int PlayTask::clampToLoop(int seekTimeMs) const {
    return loop_.clampSeek(clampToDuration(seekTimeMs), streamParser_ && streamParser_->loop().isGivenUp());
}

void PlayTask::onLoopChanged(int64_t lineMs) {
    loop_.noteUnlooped(lineMs);
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
    if (loop_.takeUnlooped(lineMs)) {
        const int targetMs = clampToLoop(static_cast<int>(filmMs(lineMs)));
        startSeek(static_cast<int>(lineMs), SeekRule::Exact, SeekFor::Loop, lineMs - targetMs);
    }
}

}  // namespace kelp
