#include "decode/recording_decode_thread.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <thread>
#include <utility>

namespace kelp::test {

namespace {

constexpr auto kTimeout = std::chrono::seconds(20);

// The system's letter for the thread's state; 'S' for one that sleeps.
char threadState(unsigned int threadId) {
    std::ifstream file("/proc/self/task/" + std::to_string(threadId) + "/stat");
    const std::string text((std::istreambuf_iterator<char>(file)), {});
    const auto name = text.rfind(')');
    return name == std::string::npos ? '?' : text[name + 2];
}

}  // namespace

std::shared_ptr<VideoPacket> makePacket(int64_t pts, int64_t num, int64_t den) {
    auto packet = std::make_shared<VideoPacket>();
    packet->pts = pts;
    packet->timeBaseNum = num;
    packet->timeBaseDen = den;
    return packet;
}

std::vector<std::string> RecordingDecodeThread::events() {
    auto all = eventsWithQuestions();
    std::erase(all, "can");
    return all;
}

std::vector<std::string> RecordingDecodeThread::eventsWithQuestions() {
    std::lock_guard lock(mutex_);
    return events_;
}

std::vector<std::string> RecordingDecodeThread::waitForEvents(size_t count) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, kTimeout, [&] {
        return events_.size() - static_cast<size_t>(std::count(events_.begin(), events_.end(), "can")) >= count;
    });
    lock.unlock();
    return events();
}

bool RecordingDecodeThread::waitUntilAsleep() {
    const auto deadline = std::chrono::steady_clock::now() + kTimeout;
    int asleep = 0;
    size_t seen = 0;
    while (std::chrono::steady_clock::now() < deadline) {
        unsigned int threadId = 0;
        size_t now = 0;
        {
            std::lock_guard lock(mutex_);
            threadId = threadId_;
            now = events_.size();
        }
        // Twice without an event in between: not just held up by the recording.
        asleep = threadId != 0 && now == seen && threadState(threadId) == 'S' ? asleep + 1 : 0;
        seen = now;
        if (asleep == 2) {
            return true;
        }
        // The kernel alone knows that a thread has gone to sleep: nothing to wait for but real time.
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
}

bool RecordingDecodeThread::canDecode() {
    {
        std::lock_guard lock(mutex_);
        threadId_ = static_cast<unsigned int>(gettid());
    }
    record("can");
    return onCanDecode();
}

void RecordingDecodeThread::decode(std::shared_ptr<MediaPacket> packet) {
    record("decode " + std::to_string(packet->pts));
    if (onDecode) {
        onDecode(*packet);
    }
}

void RecordingDecodeThread::onSeek(int seekTimeMs, bool flush) {
    record("seek " + std::to_string(seekTimeMs) + (flush ? " flush" : ""));
    if (onSeeking) {
        onSeeking(seekTimeMs, flush);
    }
}

void RecordingDecodeThread::onExit() {
    record("exit");
}

void RecordingDecodeThread::record(std::string event) {
    std::lock_guard lock(mutex_);
    events_.push_back(std::move(event));
    changed_.notify_all();
}

}  // namespace kelp::test
