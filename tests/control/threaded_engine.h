#pragma once

#include <atomic>
#include <mutex>
#include <random>
#include <string>
#include <thread>

#include "kelp_player/kelp_player.h"

namespace kelp::test {

// Stands in for the engine below a TarnPlayer, with threads of its own: a load ends a moment later, and what plays
// raises events, ends or fails, at moments of its own choice. It checks what the engine asks of its user: one call at
// a time, one source at a time, play only what is open. One player at a time.
//
// Every event carries the number of the load that it belongs to: as the width, and as the thousands of a time.
struct ThreadedEngine {
    // In a thousand: how often a load, a call, or what plays, fails, and how often what plays ends by itself.
    std::atomic<int> loadFailures{0};
    std::atomic<int> refusals{0};
    std::atomic<int> streamFailures{0};
    std::atomic<int> decoderFailures{0};
    std::atomic<int> ends{0};

    // What a user did wrong; empty if nothing.
    std::string faults();

    // For the players' calls.
    void fault(const std::string& text);
    bool happens(const std::atomic<int>& inAThousand);
    int random(int below);

    KelpPlayerObserver* observer = nullptr;
    std::thread pipeline;  // the load, and then what plays
    std::thread player;
    std::atomic<bool> stopping{false};
    std::atomic<bool> hardware{true};
    std::atomic<bool> inside{false};  // a call that must be alone
    bool loaded = false;
    bool playing = false;
    std::atomic<int> loads{0};
    std::atomic<bool> opened{false};

    static ThreadedEngine& get();

private:
    std::mutex mutex_;  // guards what follows
    std::string faults_;
    std::mt19937 generator_{20};
};

}  // namespace kelp::test
