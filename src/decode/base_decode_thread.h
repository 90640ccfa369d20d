#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "decode/seek_skip.h"
#include "runtime/base_thread.h"
#include "runtime/latest_time.h"
#include "runtime/stage_counts.h"

namespace kelp {

class MediaPacket;

// The thread and the packet queue of a decode stage. The derived class says when there is room for more output, what
// to do with a packet, and what a seek means to it.
//
// `fillPacket`, `getQueuePacketSize` and `seek` come from the demuxing thread, `checkBuffer` and `clearBuffer` from
// the control side, `start` and `stop` from the one owner. None of them waits for a decoder: packets are decoded with
// the queue's mutex released. The queue has no limit; whoever fills it asks for its size.
//
// An object runs once: there is no second `start`. The derived class stops a thread that still runs in its destructor.
class BaseDecodeThread : private BaseThread {
public:
    // `name` is for the log and for the running thread, `leadInMs` for SeekSkip.
    explicit BaseDecodeThread(std::string name, int64_t leadInMs = SeekSkip::kShortestLeadInMs);

private:
    void Run() override;

public:
    virtual bool start();

    // Queues `packet` and returns the queue's new length, in packets.
    virtual int fillPacket(std::shared_ptr<MediaPacket> packet);
    virtual int getQueuePacketSize();
    // Whether a packet that has left the queue is still being decoded: once this is false behind an empty queue, all
    // frames have been handed on.
    bool isDecoding() const { return decoding_; }
    // What waits; any thread, without a lock.
    const QueueLevel& level() const { return level_; }

    // Drops every waiting packet and leaves a seek for the thread, over one that it hasn't served yet. A thread that
    // rests for want of room serves it at once; one that sleeps on its empty queue is not woken: it serves the seek
    // when the next packet comes.
    virtual void seek(int seekTimeMs);

    // Whether the queue reaches the time given. A time before the queue's first packet counts as reached, but not one
    // before the target of a seek for which frames were left out.
    virtual bool checkBuffer(int seekTimeMs);

    // Whether the input's end waits, and before it packets around the time given. To `checkBuffer` the end is a packet.
    bool endsBehind(int seekTimeMs);

    // The test of `checkBuffer`; when it holds, calls `onSeek` without flush, on this thread and with the queue's mutex
    // held. The packets stay.
    virtual bool clearBuffer(int seekTimeMs);

    // For a target that the frames behind already skip to: what isn't needed on the way isn't decoded. The observer
    // isn't told.
    void skipTo(int seekTimeMs);

    // Whether frames at this time may have been left out of what went on from here.
    virtual bool isLeftOut(int64_t timeMs);

    // Frames have left the queue behind. Where that is told, from its beginning on, the thread that found no room rests
    // until then; where it never is, it looks again every 30 ms. Any thread, under any lock.
    void framesTaken();

    // Ends the thread and returns when `onExit` is done. Packets that still wait are dropped.
    virtual void stop();

    // Lets the thread end, ahead of a `stop`. What is queued from here on isn't decoded.
    virtual void prepareStop();

protected:
    using BaseThread::isStopRequested;

    // For the derived class's destructor: `stop`, but only for a thread that was started and not stopped.
    void stopIfRunning();

    std::unique_lock<std::mutex> queueLock() { return std::unique_lock(queueMutex_); }

    void dropPackets();

    // The part of `onSeek` that goes before the observer is told, under the lock that it returns: so both sides end up
    // with the same target. Without flush it is held already.
    std::unique_lock<std::mutex> aim(int seekTimeMs, bool flush);

    // For `decode`: frames before this time are for nobody.
    int64_t neededFromMs() const { return seekSkip_.neededFromMs(); }
    // How many packets behind the target of a seek were taken; see SeekSkip.
    int takenBehindTarget() const { return seekSkip_.takenBehind(); }
    SeekSkip::Holder holder() const { return seekSkip_.holder(); }

private:
    // May the loop take a packet now? Asked before each one.
    virtual bool canDecode() = 0;
    // Which time is to be shown now, in milliseconds, so that what comes too late may be left out; nothing for all to
    // be decoded. Asked before each packet with queueMutex_ held: takes leaves alone.
    virtual std::optional<int64_t> dueMs() { return std::nullopt; }
    // Up to which time frames have left the decoder, in their order; up to any where none comes too late.
    virtual int64_t deliveredMs() const { return std::numeric_limits<int64_t>::max(); }
    // So many packets were dropped for that, and so many are taken, or were, whose frames are for nobody.
    virtual void onLeftOut(int /*dropped*/, int /*undelivered*/) {}
    virtual void decode(std::shared_ptr<MediaPacket> packet) = 0;
    // A seek is here. With `flush` the decode thread serves it; without, `clearBuffer` calls on its caller's thread
    // and with queueMutex_ held, so that nothing called from here may come back to this class.
    virtual void onSeek(int seekTimeMs, bool flush) = 0;
    // The last thing that the thread does.
    virtual void onExit() = 0;

    // The oldest packet; waits for a wake-up if there is none, and gives none then.
    std::shared_ptr<MediaPacket> takePacket();
    // queueMutex_ is held.
    std::shared_ptr<MediaPacket> popPacket();
    bool reaches(const char* operation, int seekTimeMs);
    // After a change of the queue, with its mutex held.
    void noteLevel();

    const std::string threadName_;
    std::deque<std::shared_ptr<MediaPacket>> packetQueue_;  // oldest first; guarded by queueMutex_
    std::mutex queueMutex_;                                 // taken before a play thread's queue mutex
    int64_t queuedBytes_ = 0;                               // in packetQueue_; likewise
    QueueLevel level_;                                      // of packetQueue_
    std::condition_variable queueCond_;                     // a packet came, or a stop
    SeekSkip seekSkip_;                   // guarded by queueMutex_, but that the thread may read what `take` tells
    LatestTime seekAsked_;                // in milliseconds; posted under queueMutex_, as it goes with an emptied queue
    std::atomic<unsigned int> taken_{0};  // calls of framesTaken
    std::atomic<bool> decoding_{false};   // set under queueMutex_, as the queue gets shorter with it
    int dropped_ = 0;                     // with the last look at the queue; the thread's, like the next
    int undelivered_ = 0;
    bool running_ = false;  // between start and stop; the owner's
};

}  // namespace kelp
