#include "playtask/stall_watch.h"

#include <utility>

namespace kelp {

constexpr const char* kName = "StallWatch";

StallWatch::StallWatch(int64_t enoughMs, Calls calls)
    : BaseThread(kName), calls_(std::move(calls)), rebuffer_(enoughMs) {
}

void StallWatch::stop() {
    prepareStop();
    joinThread();
}

void StallWatch::Run() {
    setName(kName);
    while (!isStopRequested()) {
        const DataLevel level = calls_.level();
        carryOut(rebuffer_.look(level), level.waitingMs);
        rest(rebuffer_.restMs());
    }
    carryOut(rebuffer_.end(), 0);
}

void StallWatch::carryOut(Rebuffer::Step step, int64_t waitingMs) {
    if (step != Rebuffer::Step::None) {
        calls_.hold(rebuffer_.isStanding());
        toldPercent_ = -1;
    }
    if (rebuffer_.isStanding() && std::exchange(toldPercent_, rebuffer_.percent()) != rebuffer_.percent()) {
        calls_.tell(waitingMs, rebuffer_.percent());
    }
}

}  // namespace kelp
