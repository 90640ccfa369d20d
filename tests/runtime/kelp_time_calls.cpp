#include "runtime/kelp_time_calls.h"

#include <sched.h>

#include <ctime>

namespace {

thread_local bool recording = false;
thread_local std::vector<int64_t> sleepsNs;
thread_local int yields = 0;

}  // namespace

extern "C" {

int __real_nanosleep(const timespec* duration, timespec* remaining);
int __real_sched_yield();

int __wrap_nanosleep(const timespec* duration, timespec* remaining) {
    if (!recording) {
        return __real_nanosleep(duration, remaining);
    }
    sleepsNs.push_back(int64_t{duration->tv_sec} * 1'000'000'000 + duration->tv_nsec);
    return 0;
}

int __wrap_sched_yield() {
    if (!recording) {
        return __real_sched_yield();
    }
    ++yields;
    return 0;
}

}  // extern "C"

namespace kelp::test {

void recordSleeps(bool record) {
    recording = record;
    if (record) {
        sleepsNs.clear();
        yields = 0;
    }
}

std::vector<int64_t> recordedSleepsNs() {
    return sleepsNs;
}

int recordedYields() {
    return yields;
}

}  // namespace kelp::test
