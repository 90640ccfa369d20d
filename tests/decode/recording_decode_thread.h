#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "decode/base_decode_thread.h"
#include "input/media_packet.h"

namespace kelp::test {

std::shared_ptr<VideoPacket> makePacket(int64_t pts, int64_t num = 1, int64_t den = 1000);

// A decode stage that writes down what the loop asks of it: "can", "decode 5", "seek 70 flush", "exit". A hook runs in
// the operation itself, on the thread that called it.
class RecordingDecodeThread : public BaseDecodeThread {
public:
    RecordingDecodeThread() : BaseDecodeThread("Recorder") {}
    ~RecordingDecodeThread() override { stopIfRunning(); }

    std::function<bool()> onCanDecode = [] { return true; };
    std::function<void(MediaPacket&)> onDecode;
    std::function<void(int, bool)> onSeeking;

    // Every event so far but "can".
    std::vector<std::string> events();
    std::vector<std::string> eventsWithQuestions();
    // Waits in real time, up to five seconds, for so many events that are no questions; what there are then.
    std::vector<std::string> waitForEvents(size_t count);
    // Waits until the thread sleeps on its empty queue. Whether it does.
    bool waitUntilAsleep();

private:
    bool canDecode() override;
    void decode(std::shared_ptr<MediaPacket> packet) override;
    void onSeek(int seekTimeMs, bool flush) override;
    void onExit() override;

    void record(std::string event);

    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> events_;  // guarded by mutex_
    unsigned int threadId_ = 0;        // of the loop's thread; guarded by mutex_
};

}  // namespace kelp::test
