#include "call_counts.h"

#include <link.h>
#include <sys/prctl.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <climits>
#include <cstddef>
#include <string_view>

#include "call_tally.h"

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

// Ready before any constructor runs: so are the functions that count.
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

}  // namespace

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

void countPacket() {
    if (isCounting()) {
        add(packetsRead);
    }
}

bool startsPicture(const void* address) {
    insidePicture = isCounting() && callerAt(address) == Caller::Library;
    return insidePicture;
}

void endPicture() {
    insidePicture = false;
}

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
