#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "kelp_player/kelp_player.h"

namespace kelp::test {

// Stands in for the engine below a TarnPlayer: it notes every call, answers as told, and keeps what is handed to the
// worker until the test runs it.
struct FakeEngine {
    struct Timer {
        unsigned int intervalMs = 0;
        bool oneShot = false;
        std::function<void()> function;
    };

    // Of the player made last.
    static FakeEngine& get();
    static void reset();

    std::vector<std::string> calls;
    std::map<std::string, bool> answers;  // by operation; true where nothing stands
    int currentTimeMs = 0;
    int64_t durationMs = 0;
    std::vector<Track> tracks;
    Statistics statistics;
    bool isMuted = false;
    ExternPacketSink* packetSink = nullptr;
    StallObserver* stallObserver = nullptr;
    ExternSubtitleSink* subtitleSink = nullptr;
    KelpPlayerObserver* observer = nullptr;
    std::vector<void*> handles;  // of the windows, one for each call that names one
    std::vector<std::function<void()>> worker;
    bool worksOn = true;  // false: there is no memory to queue anything
    std::map<unsigned int, Timer> timers;
    unsigned int nextTimerId = 1;
    std::function<void()> inStop;  // run within `stop` and `release`, if set
    std::function<void()> inRelease;
    KelpSyncClock* clock = nullptr;         // the host's, as set last
    std::vector<KelpSyncClock*> waitedFor;  // clocks that were given up
    std::function<void()> inClockWait;      // run while one is waited for, if set

    std::vector<std::string> takeCalls();
    // Runs what is queued on the worker, also what that queues.
    void runWorker();
    // Lets the timer fire.
    void fire(unsigned int id);
    bool answer(const std::string& operation) const;
};

}  // namespace kelp::test
