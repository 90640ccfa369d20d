#include "runtime/cycle_buffer_wrapper.h"

#include <algorithm>

namespace kelp {

constexpr int kPollMs = 5;
constexpr int kCalledOff = -1;

int CycleBufferWrapper::init(int size, int (*callback)(void*), void* opaque, CallingOff callingOff) {
    int result = 0;
    {
        std::lock_guard lock(mutex_);
        aborted_ = false;
        callback_ = callback;
        opaque_ = opaque;
        restMs_ = callingOff == CallingOff::Told ? Rest::kForeverMs : kPollMs;
        result = buffer_.init(size);
    }
    lookAgain();
    return result;
}

int CycleBufferWrapper::read(unsigned char* dest, int count) {
    return transfer(reader_, writer_, dest, count);
}

int CycleBufferWrapper::write(unsigned char* src, int count) {
    return transfer(writer_, reader_, src, count);
}

int CycleBufferWrapper::read_noblock(unsigned char* dest, int count) {
    int got = 0;
    bool hasRoom = false;
    {
        std::lock_guard lock(mutex_);
        if (calledOff()) {
            return kCalledOff;
        }
        got = buffer_.read(dest, count);
        hasRoom = isServed(writer_);
    }
    if (hasRoom) {
        writer_.rest.end();
    }
    return got;
}

void CycleBufferWrapper::abort(bool abort) {
    {
        std::lock_guard lock(mutex_);
        aborted_ = abort;
    }
    lookAgain();
}

void CycleBufferWrapper::lookAgain() {
    {
        std::lock_guard lock(mutex_);
        reader_.wanted = 0;
        writer_.wanted = 0;
    }
    reader_.rest.end();
    writer_.rest.end();
}

void CycleBufferWrapper::setPatience(int ms) {
    {
        std::lock_guard lock(mutex_);
        writer_.patienceMs = ms;
    }
    lookAgain();
}

int CycleBufferWrapper::reset() {
    {
        std::lock_guard lock(mutex_);
        buffer_.reset();
    }
    lookAgain();
    return 0;
}

int CycleBufferWrapper::availableReadSize() {
    std::lock_guard lock(mutex_);
    return buffer_.availableReadSize();
}

bool CycleBufferWrapper::calledOff() {
    return (callback_ && callback_(opaque_) != 0) || aborted_;
}

bool CycleBufferWrapper::isServed(Side& side) {
    if (side.wanted == 0 || (buffer_.*side.available)() < side.wanted) {
        return false;
    }
    side.wanted = 0;
    return true;
}

// No wake-up is missed: what is wanted is said under the lock under which it wasn't there, and whatever changes that,
// or calls off, takes the lock afterwards and finds it said.
int CycleBufferWrapper::transfer(Side& own, Side& other, unsigned char* user, int count) {
    if (count < 1) {
        return 0;
    }
    int done = 0;
    int waitedMs = 0;  // for one state of the ring
    while (done < count) {
        int moved = 0;
        int restMs = 0;
        bool isPatient = true;
        bool isOtherServed = false;
        {
            std::lock_guard lock(mutex_);
            if (calledOff()) {
                return kCalledOff;
            }
            moved = (buffer_.*own.move)(user ? user + done : nullptr, count - done);
            if (moved > 0) {
                isOtherServed = isServed(other);
            } else {
                isPatient = own.patienceMs == Rest::kForeverMs;
                if (!isPatient && waitedMs >= own.patienceMs) {
                    return done;
                }
                restMs = isPatient ? restMs_ : std::min(restMs_, own.patienceMs - waitedMs);
                const int half = (buffer_.availableReadSize() + buffer_.availableWriteSize()) / 2;
                own.wanted = std::clamp(half, 1, count - done);
            }
        }
        if (isOtherServed) {
            other.rest.end();
        }
        if (moved > 0) {
            done += moved;
            waitedMs = 0;
        } else {
            own.rest.forMs(restMs, [&own] { return own.wanted == 0; });
            waitedMs = isPatient || own.wanted == 0 ? 0 : waitedMs + restMs;
        }
    }
    return done;
}

}  // namespace kelp
