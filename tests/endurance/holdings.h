#pragma once

#include <malloc.h>
#include <sys/resource.h>
#include <sys/time.h>

#include <filesystem>
#include <iterator>

namespace kelp::test {

inline int entriesOf(const char* folder) {
    return static_cast<int>(std::distance(std::filesystem::directory_iterator(folder), {}));
}

// What the process holds at the moment when this is made.
struct Holdings {
    int descriptors = entriesOf("/proc/self/fd");
    int threads = entriesOf("/proc/self/task");
    long heapKb = 0;

    Holdings() {
        malloc_trim(0);
        heapKb = static_cast<long>((mallinfo2().uordblks + mallinfo2().hblkhd) / 1024);
    }
};

// The processor's time that this process has taken, its children's left out, in seconds.
inline double cpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

}  // namespace kelp::test
