#pragma once

#include <atomic>
#include <mutex>
#include <utility>

namespace kelp {

// Whether an event, a retry or a restart is still about the source that a TarnPlayer has.
//
// An event belongs to the load whose marker has passed the worker last. A plan, that is a retry or a restart, stands
// while the host has not acted since the failure. These are two counts: after a stop without a load events still count,
// plans don't. All of it is under the player's mutex, but for the events and the count of restarts, which any thread
// may ask about, and the timer, see there.
class CurrentSource {
public:
    // The host has loaded, stopped or reset: what was planned before is void.
    void hostActed() { ++plan_; }
    unsigned int plan() const { return plan_; }
    bool isPlanned(unsigned int plan) const { return plan == plan_; }

    // A load begins. Its marker is in the worker's queue by now, behind all that was raised before.
    void loading() { ++loadsAhead_; }
    // The marker.
    void eventsReached() { --loadsAhead_; }
    // The event at hand is one of a source that the engine has given up for another. It changes nothing then and isn't
    // told, or what was asked for since would be lost.
    bool areEventsOld() const { return loadsAhead_ > 0; }

    // Whether the engine holds a source.
    void setLoaded(bool loaded) { loaded_ = loaded; }
    bool isLoaded() const { return loaded_; }

    // The source is opened again.
    void restarted() { ++restarts_; }
    int restarts() const { return restarts_; }

    // Held while the engine gives out a timer's id or takes one back: an id is given out again when its timer has
    // fired, which the retry hears later.
    std::unique_lock<std::mutex> lockTimers() { return std::unique_lock(timerMutex_); }
    // The number of a retry that is about to be armed; its timer. The one armed last is the one that counts.
    unsigned int newRetry() { return ++retry_; }
    void armTimer(unsigned int timerId) { timerId_ = timerId; }
    // The id is the host's: a timer that had it has fired.
    void giveToHost(unsigned int timerId) { timerId_ = timerId_ == timerId ? 0 : timerId_; }
    // The retry has come, and is void.
    void forgetTimerOf(unsigned int retry) { timerId_ = retry_ == retry ? 0 : timerId_; }
    // For removal; 0 if none is armed.
    unsigned int takeTimer() { return std::exchange(timerId_, 0); }

private:
    unsigned int plan_ = 0;
    std::atomic<int> loadsAhead_{0};  // loads whose marker hasn't come; below 0 while one comes before it was counted
    bool loaded_ = false;
    std::atomic<int> restarts_{0};
    unsigned int retry_ = 0;
    std::mutex timerMutex_;     // after the player's, before the worker's
    unsigned int timerId_ = 0;  // of retry_; guarded by timerMutex_
};

}  // namespace kelp
