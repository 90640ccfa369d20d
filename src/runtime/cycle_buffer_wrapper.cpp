#include "runtime/cycle_buffer_wrapper.h"

#include "runtime/kelp_time.h"

namespace kelp {

namespace {

constexpr int kPollMs = 5;
constexpr int kCalledOff = -1;

}  // namespace

CycleBufferWrapper::CycleBufferWrapper() : buffer_(std::make_unique<CycleBuffer>()) {
}

int CycleBufferWrapper::init(int size, int (*callback)(void*), void* opaque) {
    std::lock_guard lock(mutex_);
    aborted_ = false;
    callback_ = callback;
    opaque_ = opaque;
    return buffer_->init(size);
}

int CycleBufferWrapper::read(unsigned char* dest, int count) {
    return transfer(&CycleBuffer::read, dest, count);
}

int CycleBufferWrapper::write(unsigned char* src, int count) {
    return transfer(&CycleBuffer::write, src, count);
}

int CycleBufferWrapper::read_noblock(unsigned char* dest, int count) {
    std::lock_guard lock(mutex_);
    return calledOff() ? kCalledOff : buffer_->read(dest, count);
}

void CycleBufferWrapper::abort(bool abort) {
    std::lock_guard lock(mutex_);
    aborted_ = abort;
}

int CycleBufferWrapper::reset() {
    std::lock_guard lock(mutex_);
    return buffer_->reset();
}

int CycleBufferWrapper::availableReadSize() {
    std::lock_guard lock(mutex_);
    return buffer_->availableReadSize();
}

bool CycleBufferWrapper::calledOff() {
    return (callback_ && callback_(opaque_) != 0) || aborted_;
}

int CycleBufferWrapper::transfer(int (CycleBuffer::*move)(unsigned char*, int), unsigned char* user, int count) {
    if (count < 1) {
        return 0;
    }
    int done = 0;
    while (done < count) {
        int moved = 0;
        {
            std::lock_guard lock(mutex_);
            if (calledOff()) {
                return kCalledOff;
            }
            moved = (buffer_.get()->*move)(user ? user + done : nullptr, count - done);
        }
        if (moved > 0) {
            done += moved;
        } else {
            KelpTime::sleepMs(kPollMs);
        }
    }
    return done;
}

}  // namespace kelp
