// Steps from one frame to another in a pause: the request, and what the loop makes of it.

#include "present/base_play_thread.h"

namespace kelp {

// Under the mutex, so that a loop which waits for a frame is woken by it, or sees it first.
void BasePlayThread::step(int frames) {
    std::lock_guard lock(queueMutex_);
    steps_.ask(frames);
    endRest();
    tell();
}

void BasePlayThread::dropSteps() {
    std::lock_guard lock(queueMutex_);
    steps_.drop();
}

bool BasePlayThread::makeSteps(std::unique_lock<std::mutex>& lock) {
    if (!isStepDue()) {
        return false;
    }
    if (!paused_) {
        steps_.drop();
        return false;
    }
    landing_ = {};  // of a seek that has ended without a frame
    const size_t size = frameQueue_.size();
    switch (steps_.take(frameQueue_, isLast_)) {
        case FrameSteps::Outcome::Nothing:
            return false;
        case FrameSteps::Outcome::Wait:
            waitForFrame(lock);
            return true;
        case FrameSteps::Outcome::Seek: {
            const int seekTimeMs = steps_.seekTimeMs();
            unlockAndTell(lock, size);
            onStepSeek(seekTimeMs);
            return true;
        }
        case FrameSteps::Outcome::Show:
            break;
    }
    const auto frame = frameQueue_.front();
    steps_.showFront(frame->pts);
    lateStart_.end();
    unlockAndTell(lock, size);
    onStep(frame);
    return true;
}

}  // namespace kelp
