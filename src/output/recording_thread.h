#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>

#include "kelp_player/recorder.h"
#include "runtime/base_thread.h"

struct AVPacket;

namespace kelp {

class RecordingFile;

struct FreeRecordedPacket {
    void operator()(AVPacket* packet) const;
};
using RecordedPacket = std::unique_ptr<AVPacket, FreeRecordedPacket>;

// Writes one recording: packets wait in a queue that is bounded in bytes, and a thread puts them into files, each of
// which holds one stretch of packets that go on from each other.
//
// `take`, `cut` and `begin` come from whoever reads and never wait for a file; `start` and `finish` from the owner.
class RecordingThread : private BaseThread {
public:
    // The observer isn't owned; null for none.
    RecordingThread(std::string path, const RecorderLimits& limits, RecorderObserver* observer);
    // Not before `finish`, if it was started.
    ~RecordingThread() override;

    using BaseThread::startThread;

    // The streams of what comes from here on, which doesn't go on from what came.
    void begin(std::shared_ptr<const RecordedStreams> streams);
    // What comes from here on doesn't go on from what came.
    void cut();
    void take(const AVPacket& packet);
    // Writes what was taken, completes the file and ends the thread.
    void finish();

    bool hasFailed() const { return failed_; }

private:
    struct Item {
        unsigned int stretch;  // of packets that go on from each other
        std::shared_ptr<const RecordedStreams> streams;
        int lostBefore;         // packets that were left out right before it
        RecordedPacket packet;  // none: the stretch is over, and nothing may follow for long
    };

    void Run() override;
    // Waits for items; none when the recording is over.
    std::deque<Item> takeItems();
    // False if the recording has failed.
    bool write(Item& item);
    bool beginFile(const std::shared_ptr<const RecordedStreams>& streams, const AVPacket& first);
    bool endFile();
    bool isFileFull() const;
    std::string nextPath();
    bool fail(const std::string& reason);

    const std::string path_;
    const RecorderLimits limits_;
    RecorderObserver* const observer_;

    std::mutex mutex_;
    std::condition_variable cond_;  // something waits, or the end was asked for
    std::deque<Item> items_;        // guarded by mutex_, like all down to `finishing_`
    int64_t waitingBytes_ = 0;      // in items_, and in those that are being written
    unsigned int stretch_ = 0;
    std::shared_ptr<const RecordedStreams> streams_;
    int lost_ = 0;  // packets left out since the last item
    bool finishing_ = false;
    std::atomic<bool> failed_{false};

    // The thread's own.
    std::unique_ptr<RecordingFile> file_;
    unsigned int fileStretch_ = 0;
    int files_ = 0;
};

}  // namespace kelp
