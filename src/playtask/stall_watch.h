#pragma once

#include <functional>

#include "playtask/rebuffer.h"
#include "runtime/base_thread.h"

namespace kelp {

// The thread that lets a playback stand when it runs dry, and go on.
//
// Nothing else could: the reader waits for the network then, and the play threads for frames. One owner starts and
// stops it. What it calls comes on its thread, with no lock held.
class StallWatch : private BaseThread {
public:
    struct Calls {
        std::function<DataLevel()> level;
        std::function<void(bool)> hold;  // playback is to stand, or to go on
        // While it stands, whenever this changes: how much waits, in milliseconds and as a part of what is enough.
        std::function<void(int64_t waitingMs, int percent)> tell;
    };

    StallWatch(int64_t enoughMs, Calls calls);
    ~StallWatch() override { stop(); }

    void start() { startThread(); }
    // Ahead of `stop`.
    using BaseThread::prepareStop;
    // A playback that stands goes on first, so that each stall has its end.
    void stop();

private:
    void Run() override;
    void carryOut(Rebuffer::Step step, int64_t waitingMs);

    const Calls calls_;
    Rebuffer rebuffer_;
    int toldPercent_ = -1;  // of this stall
};

}  // namespace kelp
