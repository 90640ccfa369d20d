#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include "runtime/kelp_time.h"
#include "runtime/rest.h"

namespace kelp {

// Gives the calling thread a name for debuggers and system tools, cut to what the system takes. `threadId` is not
// looked at.
void SetThreadName(unsigned long threadId, const char* name);

// The calling thread's id as the system's tools show it.
unsigned int GET_TID();

// A thread with a name and a stop request; the base of every long-running stage.
//
// One owner drives startThread, joinThread and the destructor; requestStop and isStopRequested may come from any
// thread. A derived class stops its thread in its own destructor at the latest, since `Run` is its own.
class BaseThread {
public:
    explicit BaseThread(std::string name) : name_(std::move(name)) {}
    virtual ~BaseThread();

    // Starts a thread on `Run`. The last one must have been joined. Does not take back a stop request.
    bool startThread();

    // Asks `Run` to end, which polls isStopRequested. Ends a rest; wakes nothing else.
    void requestStop();
    bool isStopRequested() { return stopRequested_; }

    // Ahead of a requestStop, which alone says so in the log: lets `Run` end while others are asked as well.
    void prepareStop();

    // Takes the stop request back, before a second start.
    void resetStopRequest() { stopRequested_ = false; }

    // Waits for `Run` to end, if a thread was started. Not to be called from `Run`. Always true.
    bool joinThread();

    // Names the calling thread.
    static void setName(const char* name) { SetThreadName(static_cast<unsigned long>(-1), name); }

    static void sleepMilliSeconds(unsigned int ms) { KelpTime::sleepMs(static_cast<int>(ms)); }
    static void sleepSeconds(unsigned int s) { KelpTime::sleepMs(static_cast<int>(s * 1000U)); }

protected:
    // Rests for `ms` milliseconds at most; called by `Run`. A stop ends the rest, or `isWanted`, which reads atomics
    // alone: it is asked before the rest and at each endRest. A rest may be ended only by what the very next pass of
    // the loop consumes. What no pass takes yet would end the next rest as well, and the loop would spin.
    void rest(int ms, const std::function<bool()>& isWanted = {});
    // The same for `us` microseconds at most.
    void restUs(int64_t us, const std::function<bool()>& isWanted = {});

    // For who has noted a request that a rest is to be ended by, afterwards. Any thread, under any lock.
    void endRest() { rest_.end(); }

private:
    // The thread's body.
    virtual void Run() = 0;

    std::string name_;
    std::unique_ptr<std::thread> thread_;  // running, or finished and not joined yet
    std::atomic<bool> stopRequested_{false};
    Rest rest_;
};

}  // namespace kelp
