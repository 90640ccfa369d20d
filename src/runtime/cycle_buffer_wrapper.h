#pragma once

#include <atomic>
#include <mutex>

#include "runtime/cycle_buffer.h"
#include "runtime/rest.h"

namespace kelp {

// A byte ring between one writing and one reading thread, with transfers that wait for room or for bytes and that can
// be called off.
//
// Any thread may call any operation. `read` and `write` never sleep with the lock held; they go on when there is half
// of the ring, or all that they still need, so neither wakes for crumbs nor can both wait. `read_noblock` is the one
// for a real-time thread: it wakes a writer that rests, and touches nothing else. The lock is held for one copy at a
// time.
class CycleBufferWrapper {
public:
    // How the ring learns that `callback` calls transfers off: by asking every 5 ms, or by a lookAgain after the
    // change.
    enum class CallingOff { Polled, Told };

    // Allocates a ring of `size` bytes, of which one always stays free, and takes back an abort. 0, or -1 if there is
    // no memory. `callback`, null if there is none, is called with `opaque` before each step of a transfer, with the
    // lock held; not 0 calls the transfer off. It must not call back into this object.
    int init(int size, int (*callback)(void*), void* opaque, CallingOff callingOff = CallingOff::Polled);

    // Move `count` bytes, waiting as long as it takes. `count`, or -1 if the transfer was called off, also after a
    // part of it; 0 if there is nothing to move. Less than `count` for a write that has given up.
    int read(unsigned char* dest, int count);
    int write(unsigned char* src, int count);

    // Moves what is there, up to `count` bytes, and returns how many; -1 if transfers are called off. Never sleeps.
    int read_noblock(unsigned char* dest, int count);

    // Calls off all transfers, running and future ones, until it is called with false.
    void abort(bool abort);

    // Lets transfers that wait ask `callback` again.
    void lookAgain();

    // For how long the ring may stay as full as it is before a `write` that waits gives up; at first for ever. Counted
    // anew from here on, and from each lookAgain.
    void setPatience(int ms);

    // Empties the ring; a running transfer goes on. Returns 0.
    int reset();

    int availableReadSize();

private:
    // One side of the ring, and the transfer that waits there.
    struct Side {
        int (CycleBuffer::*const move)(unsigned char*, int);
        int (CycleBuffer::*const available)();
        std::atomic<int> wanted{0};  // bytes, or room for so many, that end the rest; 0 does. Set with mutex_ held
        Rest rest{};
        int patienceMs = Rest::kForeverMs;  // guarded by mutex_
    };

    // Whether transfers are to end. With mutex_ held.
    bool calledOff();
    // The loop of read and write.
    int transfer(Side& own, Side& other, unsigned char* user, int count);
    // Whether the rest on this side is over now, to be ended once mutex_, held here, is free.
    bool isServed(Side& side);

    CycleBuffer buffer_;  // guarded by mutex_, like the fields below
    std::mutex mutex_;
    bool aborted_ = false;              // transfers end at once
    int (*callback_)(void*) = nullptr;  // asked before each step of a transfer
    void* opaque_ = nullptr;            // argument of callback_
    int restMs_ = 0;                    // the longest between two questions
    Side reader_{&CycleBuffer::read, &CycleBuffer::availableReadSize};
    Side writer_{&CycleBuffer::write, &CycleBuffer::availableWriteSize};
};

}  // namespace kelp
