#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "runtime/rest.h"

namespace kelp {

// Runs callables one at a time, in the order in which they were queued, on a thread of its own, and timers likewise.
//
// Two threads: the task thread runs every callable, timers' included; the timer thread only finds out which timer is
// due, and sleeps until one is, or has come or gone less than 5 ms ago. Any thread may call task, addTimer, removeTimer
// and waitEmpty, callables included; no lock is held while one runs. `start` is called once; `close` not from a
// callable.
class Worker : public std::enable_shared_from_this<Worker> {
public:
    virtual ~Worker();

    // Starts both threads.
    void start();

    // Queues `func`. After `close` it is kept and never run.
    void task(std::function<void()> func);

    // Arms a timer and returns its id, 1 or greater. It fires for the first time one interval from now, and then, if
    // it isn't one-shot, one interval after each firing.
    unsigned int addTimer(unsigned int intervalMs, bool oneShot, std::function<void()> func);

    // Cancels a timer; an unknown id is no error. A callable that is queued already still runs once.
    void removeTimer(unsigned int timerId);

    // Waits, 10 ms at the least, until no callable is queued. The last ones may still be running then. Only a timer
    // that was armed or fired since the call isn't waited for: one slower than its interval has always something
    // queued.
    void waitEmpty();

    // Whether the calling thread is one of the two, which can't wait for the worker's end: a callable runs, or dies, on
    // either.
    bool isOwnThread() const;

    // Ends both threads and drops what is queued. For good: a closed worker doesn't start again.
    void close();

private:
    struct Task {
        std::function<void()> func;
        int64_t armedMs;  // as in TimerInfo, of the timer in whose firing it was queued; least if in none
    };
    struct TimerInfo {
        unsigned int id = 0;
        std::function<void()> func;
        bool oneShot = false;
        unsigned int intervalMs = 0;
        int64_t lastShotTickMs = 0;  // wall clock at arming or at the last firing
        bool removed = false;        // to be reaped by the timer thread
    };

    void queue(Task task);
    void run();
    void timerRun();
    // Makes the timer thread's next pass come in `ms` at the latest; timerMutex_ is held.
    void lookWithin(unsigned int ms);
    // One pass over the timers.
    void updateTimerTask();

    std::thread thread_;
    std::vector<Task> tasks_;  // guarded by tasksMutex_
    std::mutex tasksMutex_;    // taken inside timerMutex_, never the other way round
    std::condition_variable tasksCond_;
    std::thread timerThread_;
    unsigned int nextTimerId_ = 1;          // guarded by timerMutex_, like the three lists below
    std::list<unsigned int> freeTimerIds_;  // ids given back, reused first in, first out
    std::list<TimerInfo> timers_;           // in the order in which they were armed; only the timer thread moves them
    std::list<TimerInfo> newTimers_;        // added since the timer thread's last pass
    std::mutex timerMutex_;
    std::atomic<int64_t> lookMs_{0};  // wall clock at the timer thread's next pass; written with timerMutex_ held
    Rest timerRest_;                  // of the timer thread until then
    std::atomic<bool> closed_{false};
};

}  // namespace kelp
