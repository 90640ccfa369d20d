#include "faults/jumping_time.h"

#include <atomic>
#include <chrono>
#include <thread>

#include "runtime/kelp_time.h"

namespace {
std::atomic<int64_t> g_offsetUs{0};
}  // namespace

namespace kelp::test {

void jumpWallClock(int64_t ms) {
    g_offsetUs += ms * 1000;
}

}  // namespace kelp::test

namespace kelp {

int64_t KelpTime::getTimeUs() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::microseconds>(now).count() + g_offsetUs;
}

int64_t KelpTime::getTimeMs() {
    return getTimeUs() / 1000;
}

int64_t KelpTime::getSteadyUs() {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::microseconds>(now).count();
}

void KelpTime::sleepMs(int ms) {
    sleepUs(ms * 1000);
}

void KelpTime::sleepUs(int us) {
    std::this_thread::sleep_for(std::chrono::milliseconds(us / 1000));
}

}  // namespace kelp
