#include "clock/live_arrivals.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "clock/render_timing.h"
#include "clock/timestamp_extrapolator.h"
#include "support/fake_time.h"

namespace kelp::test {

namespace {

constexpr int64_t kTicksPerSecond = 90000;
constexpr int64_t kTimestampRange = int64_t{1} << 33;
constexpr int64_t kWrapAtMs = 30000;
constexpr double kWayMs = 100;  // from sender to receiver
constexpr int64_t kRenderDelayMs = 10;

// Numbers that look random and are the same everywhere.
class Dice {
public:
    // From 0 to `sides` - 1.
    int roll(int sides) {
        state_ = state_ * 6364136223846793005ULL + 1442695040888963407ULL;
        return static_cast<int>((state_ >> 33) % static_cast<uint64_t>(sides));
    }

private:
    uint64_t state_ = 42;
};

}  // namespace

const std::vector<ArrivalCase>& arrivalCases() {
    static const std::vector<ArrivalCase> cases = {
        {"jitter", {.jitterMs = 15}},
        {"drift", {.jitterMs = 15, .driftPpm = 100}},
        {"step", {.jitterMs = 15, .stepMs = 300}},
        {"wrap", {.jitterMs = 15, .wraps = true}},
        {"loss", {.jitterMs = 15, .lostOfHundred = 10, .swappedOfHundred = 5}},
        {"all",
         {.jitterMs = 15, .driftPpm = 100, .stepMs = 300, .wraps = true, .lostOfHundred = 10, .swappedOfHundred = 5}},
        {"late_step", {.jitterMs = 15, .stepMs = 300, .stepAtMs = 600000, .lengthMs = 660000}},
    };
    return cases;
}

const ArrivalFaults& arrivalFaults(const std::string& name) {
    for (const auto& entry : arrivalCases()) {
        if (entry.name == name) {
            return entry.faults;
        }
    }
    std::fprintf(stderr, "no case %s\n", name.c_str());
    std::abort();
}

std::vector<Arrival> makeArrivals(const ArrivalFaults& faults) {
    Dice dice;
    std::vector<Arrival> arrivals;
    const int64_t firstTicks = faults.wraps ? kTimestampRange - kWrapAtMs * kTicksPerSecond / 1000 : 0;
    for (int sentMs = 0; sentMs < faults.lengthMs; sentMs += kArrivalsFrameMs) {
        const int jitter = faults.jitterMs > 0 ? dice.roll(2 * faults.jitterMs + 1) - faults.jitterMs : 0;
        const bool lost = dice.roll(100) < faults.lostOfHundred;
        const bool swapped = dice.roll(100) < faults.swappedOfHundred;
        if (lost) {
            continue;
        }
        Arrival arrival;
        const double ticks = sentMs * (1.0 + faults.driftPpm / 1e6) * kTicksPerSecond / 1000;
        arrival.timestamp = (firstTicks + std::llround(ticks)) % kTimestampRange;
        const double wayMs = kWayMs + (sentMs >= faults.stepAtMs ? faults.stepMs : 0);
        arrival.truthMs = static_cast<double>(kArrivalsStartMs) + sentMs + wayMs;
        arrival.arrivalMs =
            std::llround(arrival.truthMs) + jitter + (swapped ? kArrivalsFrameMs + 2 * faults.jitterMs : 0);
        arrivals.push_back(arrival);
    }
    std::stable_sort(arrivals.begin(), arrivals.end(),
                     [](const Arrival& a, const Arrival& b) { return a.arrivalMs < b.arrivalMs; });
    return arrivals;
}

std::vector<ArrivalEstimate> estimateArrivals(const std::vector<Arrival>& arrivals) {
    FakeTime::reset(kArrivalsStartMs);
    TimestampExtrapolator extrapolator;
    extrapolator.init(kTicksPerSecond);
    RenderTiming timing(&extrapolator);
    std::vector<ArrivalEstimate> estimates;
    for (const Arrival& arrival : arrivals) {
        FakeTime::setNowMs(arrival.arrivalMs);
        extrapolator.update(arrival.timestamp);
        const int64_t answer = timing.renderTime(arrival.timestamp * 1000 / kTicksPerSecond) - kRenderDelayMs;
        estimates.push_back({arrival.truthMs - static_cast<double>(kArrivalsStartMs),
                             static_cast<double>(arrival.arrivalMs) - arrival.truthMs,
                             static_cast<double>(answer) - arrival.truthMs});
    }
    return estimates;
}

}  // namespace kelp::test
