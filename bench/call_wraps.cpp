#include <dlfcn.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>

#include "call_tally.h"

extern "C" {
#include <libavformat/avformat.h>
#include <libswscale/swscale.h>

// What malloc and its kin are in the C library when a program has functions of these names.
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* memory, size_t size);
void* __libc_memalign(size_t alignment, size_t size);

// std::condition_variable::wait, which the library calls in the C++ runtime: a call from there could be anybody's.
void waitForCondition(void* condition, void* lock) __asm__("_ZNSt18condition_variable4waitERSt11unique_lockISt5mutexE");
}

namespace {

// The function that the program would have had.
template <class Function>
class Next {
public:
    explicit constexpr Next(const char* name) : name_(name) {}

    Function* get() {
        Function* function = function_.load(std::memory_order_relaxed);
        if (!function) {
            function = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name_));
            function_.store(function, std::memory_order_relaxed);
        }
        return function;
    }

    // Null before the first `get`.
    Function* known() const { return function_.load(std::memory_order_relaxed); }

private:
    const char* name_;
    std::atomic<Function*> function_{nullptr};
};

using CopyFunction = void*(void*, const void*, size_t);

constinit Next<CopyFunction> nextMemcpy{"memcpy"};
constinit Next<CopyFunction> nextMemmove{"memmove"};
constinit Next<int(pthread_mutex_t*)> nextMutexLock{"pthread_mutex_lock"};
constinit Next<int(pthread_cond_t*, pthread_mutex_t*)> nextWait{"pthread_cond_wait"};
constinit Next<int(pthread_cond_t*, pthread_mutex_t*, const timespec*)> nextTimedWait{"pthread_cond_timedwait"};
constinit Next<int(pthread_cond_t*, pthread_mutex_t*, clockid_t, const timespec*)> nextClockWait{
    "pthread_cond_clockwait"};
constinit Next<void(void*, void*)> nextConditionWait{"_ZNSt18condition_variable4waitERSt11unique_lockISt5mutexE"};
constinit Next<int(const timespec*, timespec*)> nextSleep{"nanosleep"};
constinit Next<int(clockid_t, int, const timespec*, timespec*)> nextClockSleep{"clock_nanosleep"};
constinit Next<decltype(sws_scale)> nextScale{"sws_scale"};
constinit Next<decltype(av_read_frame)> nextReadFrame{"av_read_frame"};

// Looking a function up may copy: the copies before are made byte by byte.
__attribute__((constructor(101))) void findCopies() {
    nextMemcpy.get();
    nextMemmove.get();
}

void* copyBytes(void* to, const void* from, size_t size) {
    auto* target = static_cast<volatile unsigned char*>(to);
    const auto* source = static_cast<const volatile unsigned char*>(from);
    if (to <= from) {
        for (size_t i = 0; i < size; ++i) {
            target[i] = source[i];
        }
    } else {
        for (size_t i = size; i > 0; --i) {
            target[i - 1] = source[i - 1];
        }
    }
    return to;
}

void* copy(const Next<CopyFunction>& next, void* to, const void* from, size_t size) {
    CopyFunction* function = next.known();
    return function ? function(to, from, size) : copyBytes(to, from, size);
}

void* allocateOrThrow(size_t alignment, size_t size) {
    void* memory = alignment == 0 ? __libc_malloc(size) : __libc_memalign(alignment, size);
    if (!memory) {
        throw std::bad_alloc();
    }
    return memory;
}

}  // namespace

using namespace kelp::bench;

// The functions that stand in for those of the libraries. Each looks where it was called from by itself.

extern "C" {

void* malloc(size_t size) noexcept {
    countAllocation(__builtin_return_address(0));
    return __libc_malloc(size);
}

void* calloc(size_t count, size_t size) noexcept {
    countAllocation(__builtin_return_address(0));
    return __libc_calloc(count, size);
}

void* realloc(void* memory, size_t size) noexcept {
    countAllocation(__builtin_return_address(0));
    return __libc_realloc(memory, size);
}

void* memalign(size_t alignment, size_t size) noexcept {
    countAllocation(__builtin_return_address(0));
    return __libc_memalign(alignment, size);
}

void* aligned_alloc(size_t alignment, size_t size) noexcept {
    countAllocation(__builtin_return_address(0));
    return __libc_memalign(alignment, size);
}

int posix_memalign(void** memory, size_t alignment, size_t size) noexcept {
    countAllocation(__builtin_return_address(0));
    if (alignment % sizeof(void*) != 0 || (alignment & (alignment - 1)) != 0 || alignment == 0) {
        return EINVAL;
    }
    void* const got = __libc_memalign(alignment, size);
    if (!got) {
        return ENOMEM;
    }
    *memory = got;
    return 0;
}

void* memcpy(void* __restrict to, const void* __restrict from, size_t size) noexcept {
    countCopy(__builtin_return_address(0), size);
    return copy(nextMemcpy, to, from, size);
}

void* memmove(void* to, const void* from, size_t size) noexcept {
    countCopy(__builtin_return_address(0), size);
    return copy(nextMemmove, to, from, size);
}

// What code built with checks calls. That the target has room is for the one who was compiled to know.
void* __memcpy_chk(void* to, const void* from, size_t size, size_t room) {
    countCopy(__builtin_return_address(0), size);
    return size <= room ? copy(nextMemcpy, to, from, size) : (std::abort(), nullptr);
}

void* __memmove_chk(void* to, const void* from, size_t size, size_t room) {
    countCopy(__builtin_return_address(0), size);
    return size <= room ? copy(nextMemmove, to, from, size) : (std::abort(), nullptr);
}

int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
    countLock(__builtin_return_address(0));
    return nextMutexLock.get()(mutex);
}

int pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
    countWaitAt(__builtin_return_address(0));
    return nextWait.get()(condition, mutex);
}

int pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec* until) {
    countWaitAt(__builtin_return_address(0));
    return nextTimedWait.get()(condition, mutex, until);
}

int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock, const timespec* until) {
    countWaitAt(__builtin_return_address(0));
    return nextClockWait.get()(condition, mutex, clock, until);
}

void waitForCondition(void* condition, void* lock) {
    countWaitAt(__builtin_return_address(0));
    nextConditionWait.get()(condition, lock);
}

int nanosleep(const timespec* time, timespec* left) {
    countSleep(__builtin_return_address(0), *time);
    return nextSleep.get()(time, left);
}

int clock_nanosleep(clockid_t clock, int flags, const timespec* time, timespec* left) {
    countWaitAt(__builtin_return_address(0));
    return nextClockSleep.get()(clock, flags, time, left);
}

int sws_scale(SwsContext* context, const uint8_t* const* from, const int* fromStride, int row, int rows,
              uint8_t* const* to, const int* toStride) {
    const void* const address = __builtin_return_address(0);
    // Planar 4:2:0.
    const int bytes = toStride[0] * rows + (toStride[1] + toStride[2]) * ((rows + 1) / 2);
    const bool counts = startsPicture(address);
    const int result = nextScale.get()(context, from, fromStride, row, rows, to, toStride);
    if (counts) {
        endPicture();
        countCopy(address, static_cast<size_t>(bytes));
    }
    return result;
}

int av_read_frame(AVFormatContext* context, AVPacket* packet) {
    const int result = nextReadFrame.get()(context, packet);
    if (result >= 0) {
        countPacket();
    }
    return result;
}

}  // extern "C"

void* operator new(size_t size) {
    countAllocation(__builtin_return_address(0));
    return allocateOrThrow(0, size);
}

void* operator new[](size_t size) {
    countAllocation(__builtin_return_address(0));
    return allocateOrThrow(0, size);
}

void* operator new(size_t size, const std::nothrow_t&) noexcept {
    countAllocation(__builtin_return_address(0));
    return __libc_malloc(size);
}

void* operator new[](size_t size, const std::nothrow_t&) noexcept {
    countAllocation(__builtin_return_address(0));
    return __libc_malloc(size);
}

void* operator new(size_t size, std::align_val_t alignment) {
    countAllocation(__builtin_return_address(0));
    return allocateOrThrow(static_cast<size_t>(alignment), size);
}

void* operator new[](size_t size, std::align_val_t alignment) {
    countAllocation(__builtin_return_address(0));
    return allocateOrThrow(static_cast<size_t>(alignment), size);
}
