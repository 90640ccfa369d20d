#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>

namespace kelp {

// Which object of the host's is called, if any, and how the host takes it back.
//
// One thread calls, by a `Call` each; all else comes from any thread, the object's own calls included.
template <class Sink>
class SinkSlot {
public:
    static constexpr std::chrono::milliseconds kLongestWait{1000};

    // One call of the sink that is set at its beginning; `sink` is null if there is none.
    class Call {
    public:
        explicit Call(SinkSlot& slot) : slot_(slot) {
            std::lock_guard lock(slot_.mutex_);
            sink = slot_.sink_;
            number = slot_.number_;
            slot_.beingCalled_ = sink;
            slot_.caller_ = std::this_thread::get_id();
        }
        Call(const Call&) = delete;
        Call& operator=(const Call&) = delete;
        ~Call() {
            std::lock_guard lock(slot_.mutex_);
            slot_.beingCalled_ = nullptr;
            slot_.called_.notify_all();
        }

        Sink* sink = nullptr;
        unsigned int number = 0;  // of the sink: counts them, from 1

    private:
        SinkSlot& slot_;
    };

    // Whether there is one, at the cost of a look at an atomic.
    bool isSet() const { return isSet_; }

    // Calls `sink`, or none, from now on; it isn't owned. Returns the one that it replaces, to be waited for.
    Sink* set(Sink* sink) {
        std::lock_guard lock(mutex_);
        Sink* const replaced = std::exchange(sink_, sink);
        ++number_;
        isSet_ = sink != nullptr;
        return replaced != sink ? replaced : nullptr;
    }

    // Waits until a call of `sink` that is under way has returned, unless it was set again or this comes from within
    // that call. For a second at most, as the call may wait for a lock that the caller holds: false then. The end of a
    // call is noted under the mutex, under which this looks before it waits.
    bool waitUntilUncalled(const Sink* sink) {
        std::unique_lock lock(mutex_);
        if (!sink || (beingCalled_ && caller_ == std::this_thread::get_id())) {
            return true;
        }
        return called_.wait_for(lock, kLongestWait, [&] { return sink_ == sink || beingCalled_ != sink; });
    }

private:
    std::atomic<bool> isSet_{false};
    std::mutex mutex_;  // never held while a sink is called; a leaf
    std::condition_variable called_;
    Sink* sink_ = nullptr;     // guarded by mutex_, like the rest
    unsigned int number_ = 0;  // of the sink
    const Sink* beingCalled_ = nullptr;
    std::thread::id caller_;  // of that call
};

}  // namespace kelp
