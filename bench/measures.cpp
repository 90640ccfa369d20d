#include "measures.h"

#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <fstream>
#include <string>

namespace kelp::bench {

double nowMs() {
    using namespace std::chrono;
    return duration<double, std::milli>(steady_clock::now().time_since_epoch()).count();
}

double cpuSeconds(int who) {
    rusage usage{};
    getrusage(who, &usage);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

ProcessState processState() {
    ProcessState state;
    std::ifstream status("/proc/self/status");
    for (std::string name; status >> name; std::getline(status, name)) {
        double value = 0;
        if (name == "VmRSS:" && status >> value) {
            state.residentMiB = value / 1024;
        } else if (name == "VmHWM:" && status >> value) {
            state.peakMiB = value / 1024;
        } else if (name == "Threads:" && status >> value) {
            state.threads = static_cast<int>(value);
        }
    }
    return state;
}

Spread spreadOf(std::vector<double> values) {
    if (values.empty()) {
        return {};
    }
    std::sort(values.begin(), values.end());
    const auto at = [&](double part) {
        const double rank = std::ceil(part * static_cast<double>(values.size()));
        return values[std::max<size_t>(static_cast<size_t>(rank), 1) - 1];
    };
    return {values.size(), at(0.5), at(0.99), at(1)};
}

}  // namespace kelp::bench
