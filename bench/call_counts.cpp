#include "call_counts.h"

#include <dlfcn.h>
#include <link.h>
#include <pthread.h>
#include <sys/prctl.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>
#include <string_view>

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

namespace kelp::bench {
namespace {

constexpr size_t kMaxThreads = 64;
constexpr size_t kMaxSites = 4096;  // a power of two
constexpr uintptr_t kSiteKindShift = 60;

// Memory that holds code of one module.
struct Segment {
    uintptr_t begin;
    uintptr_t end;
    uintptr_t base;  // where the module's file begins
    Caller caller;
};

struct Tally {
    std::atomic<int64_t> allocations;
    std::atomic<int64_t> copies;
    std::atomic<int64_t> copiedBytes;
    std::atomic<int64_t> locks;
    std::atomic<int64_t> rests;
};

struct ThreadTally {
    char name[16];
    std::atomic<int64_t> sleeps;
    std::atomic<int> shortestMs;
    std::atomic<int> longestMs;
    std::atomic<int64_t> waits;
};

struct SiteTally {
    std::atomic<uintptr_t> key;  // kind and offset; 0 if free
    std::atomic<int64_t> calls;
};

// Ready before any constructor runs: so are the functions below.
constinit std::atomic<bool> counting{false};
constinit std::vector<Segment>* segments = nullptr;  // in order; written before counting begins
constinit std::array<Tally, kCallers> tallies{};
constinit std::atomic<int64_t> packetsRead{0};
constinit std::array<ThreadTally, kMaxThreads> threadTallies{};
constinit std::atomic<size_t> threadCount{0};
constinit std::array<SiteTally, kMaxSites> siteTallies{};

thread_local ThreadTally* threadTally = nullptr;
thread_local bool insidePicture = false;

bool isCounting() {
    return counting.load(std::memory_order_relaxed);
}

void add(std::atomic<int64_t>& sum, int64_t amount = 1) {
    sum.fetch_add(amount, std::memory_order_relaxed);
}

Caller callerOf(std::string_view path) {
    const std::string_view name = path.substr(path.rfind('/') + 1);
    if (name.starts_with("libkelp_player")) {
        return Caller::Library;
    }
    if (name.starts_with("libav") || name.starts_with("libswscale") || name.starts_with("libswresample")) {
        return Caller::FFmpeg;
    }
    if (name.starts_with("libSDL")) {
        return Caller::Sdl;
    }
    return name.starts_with("libSoundTouch") ? Caller::SoundTouch : Caller::Other;
}

int addSegments(dl_phdr_info* info, size_t /*size*/, void* target) {
    for (int i = 0; i < info->dlpi_phnum; ++i) {
        const auto& header = info->dlpi_phdr[i];
        if (header.p_type == PT_LOAD && (header.p_flags & PF_X) != 0) {
            const uintptr_t begin = info->dlpi_addr + header.p_vaddr;
            static_cast<std::vector<Segment>*>(target)->push_back(
                {begin, begin + header.p_memsz, info->dlpi_addr, callerOf(info->dlpi_name)});
        }
    }
    return 0;
}

const Segment* findSegment(const void* address) {
    const auto place = reinterpret_cast<uintptr_t>(address);
    const auto after = std::upper_bound(segments->begin(), segments->end(), place,
                                        [](uintptr_t value, const Segment& segment) { return value < segment.begin; });
    if (after == segments->begin() || place >= std::prev(after)->end) {
        return nullptr;
    }
    return &*std::prev(after);
}

void countSite(Site kind, uintptr_t offset) {
    const uintptr_t key = static_cast<uintptr_t>(kind) << kSiteKindShift | offset;
    for (size_t i = 0; i < kMaxSites; ++i) {
        SiteTally& site = siteTallies[(key * 0x9e3779b97f4a7c15U + i) & (kMaxSites - 1)];
        uintptr_t known = 0;
        if (site.key.compare_exchange_strong(known, key, std::memory_order_relaxed) || known == key) {
            add(site.calls);
            return;
        }
    }
}

// The tally of the module that `address` lies in.
Tally& tallyOf(const void* address, Site kind) {
    const Segment* segment = findSegment(address);
    const Caller caller = segment ? segment->caller : Caller::Other;
    if (caller == Caller::Library) {
        countSite(kind, reinterpret_cast<uintptr_t>(address) - segment->base);
    }
    return tallies[static_cast<size_t>(caller)];
}

Caller callerAt(const void* address) {
    const Segment* segment = findSegment(address);
    return segment ? segment->caller : Caller::Other;
}

void countAllocation(const void* address) {
    if (isCounting() && !insidePicture) {
        add(tallyOf(address, Site::Allocation).allocations);
    }
}

void countCopy(const void* address, size_t bytes) {
    if (isCounting() && !insidePicture) {
        Tally& tally = tallyOf(address, Site::Copy);
        add(tally.copies);
        add(tally.copiedBytes, static_cast<int64_t>(bytes));
    }
}

void countLock(const void* address) {
    if (isCounting() && !insidePicture) {
        add(tallyOf(address, Site::Lock).locks);
    }
}

// Null if there are more threads than places.
ThreadTally* ownThreadTally() {
    if (!threadTally) {
        const size_t index = threadCount.fetch_add(1, std::memory_order_relaxed);
        if (index >= kMaxThreads) {
            return nullptr;
        }
        threadTally = &threadTallies[index];
        threadTally->shortestMs.store(INT_MAX, std::memory_order_relaxed);
        prctl(PR_GET_NAME, threadTally->name);
    }
    return threadTally;
}

void countWait(Caller caller) {
    add(tallies[static_cast<size_t>(caller)].rests);
    if (caller == Caller::Library) {
        if (ThreadTally* own = ownThreadTally()) {
            add(own->waits);
        }
    }
}

void countWaitAt(const void* address) {
    if (isCounting()) {
        countWait(callerAt(address));
    }
}

void countSleep(const void* address, const timespec& time) {
    if (!isCounting()) {
        return;
    }
    const Caller caller = callerAt(address);
    add(tallies[static_cast<size_t>(caller)].rests);
    if (caller != Caller::Library) {
        return;
    }
    if (ThreadTally* own = ownThreadTally()) {
        const int ms = static_cast<int>(time.tv_sec * 1000 + time.tv_nsec / 1000000);
        add(own->sleeps);
        // Each thread writes to its own place alone.
        own->shortestMs.store(std::min(own->shortestMs.load(std::memory_order_relaxed), ms), std::memory_order_relaxed);
        own->longestMs.store(std::max(own->longestMs.load(std::memory_order_relaxed), ms), std::memory_order_relaxed);
    }
}

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

const char* nameOf(Caller caller) {
    static constexpr const char* kNames[kCallers] = {"library", "FFmpeg", "SDL", "SoundTouch", "others"};
    return kNames[static_cast<size_t>(caller)];
}

bool CallCounts::findModules() {
    static std::vector<Segment> found;
    found.clear();
    dl_iterate_phdr(addSegments, &found);
    std::sort(found.begin(), found.end(), [](const Segment& a, const Segment& b) { return a.begin < b.begin; });
    segments = &found;
    return std::any_of(found.begin(), found.end(),
                       [](const Segment& segment) { return segment.caller == Caller::Library; });
}

void CallCounts::start() {
    counting.store(true);
}

void CallCounts::stop() {
    counting.store(false);
}

Calls CallCounts::of(Caller caller) {
    const Tally& tally = tallies[static_cast<size_t>(caller)];
    return {tally.allocations, tally.copies, tally.copiedBytes, tally.locks, tally.rests};
}

int64_t CallCounts::packets() {
    return packetsRead;
}

std::vector<ThreadRests> CallCounts::threads() {
    std::vector<ThreadRests> threads;
    const size_t count = std::min(threadCount.load(), kMaxThreads);
    for (size_t i = 0; i < count; ++i) {
        const ThreadTally& tally = threadTallies[i];
        ThreadRests rests;
        std::copy(std::begin(tally.name), std::end(tally.name), rests.name);
        rests.sleeps = tally.sleeps;
        rests.shortestMs = rests.sleeps > 0 ? tally.shortestMs.load() : 0;
        rests.longestMs = tally.longestMs;
        rests.waits = tally.waits;
        threads.push_back(rests);
    }
    std::sort(threads.begin(), threads.end(),
              [](const ThreadRests& a, const ThreadRests& b) { return a.sleeps + a.waits > b.sleeps + b.waits; });
    return threads;
}

std::vector<SiteCalls> CallCounts::sites() {
    std::vector<SiteCalls> sites;
    for (const SiteTally& site : siteTallies) {
        if (const uintptr_t key = site.key) {
            sites.push_back(
                {static_cast<Site>(key >> kSiteKindShift), key & ((uintptr_t{1} << kSiteKindShift) - 1), site.calls});
        }
    }
    std::sort(sites.begin(), sites.end(), [](const SiteCalls& a, const SiteCalls& b) { return a.calls > b.calls; });
    return sites;
}

}  // namespace kelp::bench

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
    if (!isCounting() || callerAt(address) != Caller::Library) {
        return nextScale.get()(context, from, fromStride, row, rows, to, toStride);
    }
    // Planar 4:2:0.
    countCopy(address, static_cast<size_t>(toStride[0] * rows + (toStride[1] + toStride[2]) * ((rows + 1) / 2)));
    insidePicture = true;
    const int result = nextScale.get()(context, from, fromStride, row, rows, to, toStride);
    insidePicture = false;
    return result;
}

int av_read_frame(AVFormatContext* context, AVPacket* packet) {
    const int result = nextReadFrame.get()(context, packet);
    if (result >= 0 && isCounting()) {
        add(packetsRead);
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
