// What a seek asks of a play thread's queue: from any thread, while the loop runs.

#include <algorithm>

#include "kelp_player/log.h"
#include "present/base_play_thread.h"

namespace kelp {

namespace {

constexpr const char* kTag = "BasePlayThread";

}  // namespace

void BasePlayThread::seek(int seekTimeMs, bool needFlush) {
    Log::Debug(kTag, "[%s], %s, seekTimeMs:%d\n", threadName_.c_str(), "seek", seekTimeMs);
    std::unique_lock lock(queueMutex_);
    const size_t size = frameQueue_.size();
    Log::Debug(kTag, "[%s], %s, seek req... queue size:%d, needFlush:%d\n", threadName_.c_str(), "seek",
               static_cast<int>(frameQueue_.size()), needFlush);
    if (!frameQueue_.empty()) {
        Log::Debug(kTag, "[%s], %s, flush firstPts:%d, backPts:%lld\n", threadName_.c_str(), "seek",
                   static_cast<int>(frameQueue_.front()->pts), static_cast<long long>(frameQueue_.back()->pts));
    }
    if (needFlush) {
        clearQueue(frameQueue_);
        steps_.cut(frameQueue_);
        isLast_ = false;
    }
    postSeek(seekTimeMs);
    unlockAndTell(lock, size);
}

void BasePlayThread::postSeek(int seekTimeMs) {
    presentedToMs_ = -1;
    seekAsked_.post(seekTimeMs);
    endRest();
    tell();
}

void BasePlayThread::tell() {
    ++told_;
    news_.end();
}

bool BasePlayThread::beginsBy(int seekTimeMs) const {
    return !frameQueue_.empty() && frameQueue_.front()->pts <= seekTimeMs;
}

bool BasePlayThread::holdsFrom(int seekTimeMs) {
    std::lock_guard lock(queueMutex_);
    return beginsBy(seekTimeMs);
}

bool BasePlayThread::seekInQueue(int seekTimeMs, const std::function<void()>& onFound) {
    std::lock_guard lock(queueMutex_);
    if (!beginsBy(seekTimeMs)) {
        return false;
    }
    onFound();
    postSeek(seekTimeMs);
    return true;
}

void BasePlayThread::endFrames() {
    std::lock_guard lock(queueMutex_);
    isLast_ = true;
    tell();
}

bool BasePlayThread::checkBuffer(int seekTimeMs) {
    std::lock_guard lock(queueMutex_);
    return isInRange(seekTimeMs, "checkBuffer");
}

bool BasePlayThread::clearBuffer(int seekTimeMs) {
    std::unique_lock lock(queueMutex_);
    const size_t size = frameQueue_.size();
    const bool isFound = dropBefore(seekTimeMs);
    presentedToMs_ = std::max<int64_t>(presentedToMs_, seekTimeMs);
    steps_.cut(frameQueue_);
    unlockAndTell(lock, size);
    return isFound;
}

bool BasePlayThread::dropBefore(int seekTimeMs) {
    constexpr const char* kOperation = "clearBuffer";
    if (!isInRange(seekTimeMs, kOperation)) {
        clearQueue(frameQueue_);
        return false;
    }
    while (!frameQueue_.empty()) {
        const auto& front = *frameQueue_.front();
        Log::Debug(kTag, "[%s], %s, frame pts:%lld, duration:%lld, seekTime:%d, bfsz:%d\n", threadName_.c_str(),
                   kOperation, static_cast<long long>(front.pts), static_cast<long long>(front.duration), seekTimeMs,
                   front.buffer ? static_cast<int>(front.buffer->size) : 0);
        if (SeekLanding::reaches(front, seekTimeMs)) {
            Log::Info(kTag, "[%s], %s, frame pts:%lld found\n", threadName_.c_str(), kOperation,
                      static_cast<long long>(front.pts));
            break;
        }
        frameQueue_.pop();
    }
    return true;
}

bool BasePlayThread::isInRange(int seekTimeMs, const char* operation) {
    Log::Debug(kTag, "[%s], %s, seekTimeMs:%d, qsz:%d\n", threadName_.c_str(), operation, seekTimeMs,
               static_cast<int>(frameQueue_.size()));
    if (frameQueue_.empty()) {
        return false;
    }
    const int64_t first = frameQueue_.front()->pts;
    const int64_t last = frameQueue_.back()->pts;
    Log::Debug(kTag, "[%s], %s, seek time %lld, frame buffer range:[%lld, %lld]\n", threadName_.c_str(), operation,
               static_cast<long long>(seekTimeMs), static_cast<long long>(first), static_cast<long long>(last));
    if (first <= seekTimeMs && last >= seekTimeMs) {
        return true;
    }
    Log::Debug(kTag, "[%s], %s, out of range\n", threadName_.c_str(), operation);
    return false;
}

}  // namespace kelp
