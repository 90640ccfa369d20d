#include "runtime/kelp_time.h"

#include <chrono>
#include <thread>

namespace kelp {

int64_t KelpTime::getTimeUs() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::microseconds>(now).count();
}

int64_t KelpTime::getTimeMs() {
    return getTimeUs() / 1000;
}

int64_t KelpTime::getSteadyUs() {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::microseconds>(now).count();
}

void KelpTime::sleepMs(int ms) {
    // The product is 32 bits wide and wraps.
    sleepUs(static_cast<int>(static_cast<uint32_t>(ms) * 1000U));
}

void KelpTime::sleepUs(int us) {
    const int ms = us / 1000;
    if (ms > 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(ms));
    } else {
        std::this_thread::yield();
    }
}

}  // namespace kelp
