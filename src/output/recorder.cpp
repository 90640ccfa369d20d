#include "kelp_player/recorder.h"

#include <utility>

#include "kelp_player/log.h"
#include "output/recorded_streams.h"
#include "output/recording_file.h"
#include "output/recording_thread.h"

namespace kelp {

namespace {

constexpr char kTag[] = "Recorder";

}  // namespace

Recorder::Recorder(RecorderObserver* observer) : observer_(observer) {
}

Recorder::~Recorder() {
    stop();
}

bool Recorder::start(const std::string& path, const RecorderLimits& limits) {
    if (!RecordingFile::containerOf(path)) {
        Log::Error(kTag, "start, %s, no container has this ending\n", path.c_str());
        return false;
    }
    std::lock_guard lock(mutex_);
    if (thread_) {
        Log::Error(kTag, "start, %s, it records already\n", path.c_str());
        return false;
    }
    auto thread = std::make_unique<RecordingThread>(path, limits, observer_);
    thread->startThread();
    thread_ = std::move(thread);
    if (streams_) {
        thread_->begin(streams_);
    }
    return true;
}

void Recorder::stop() {
    std::unique_ptr<RecordingThread> thread;
    {
        std::lock_guard lock(mutex_);
        thread = std::move(thread_);
    }
    if (thread) {
        thread->finish();
    }
}

bool Recorder::isRecording() const {
    std::lock_guard lock(mutex_);
    return thread_ && !thread_->hasFailed();
}

void Recorder::onStreams(const std::vector<PacketStream>& streams) {
    auto copy = std::make_shared<const RecordedStreams>(streams);
    std::lock_guard lock(mutex_);
    streams_ = std::move(copy);
    if (thread_) {
        thread_->begin(streams_);
    }
}

void Recorder::onPacket(const Packet& packet) {
    std::lock_guard lock(mutex_);
    if (thread_ && packet.packet) {
        thread_->take(*packet.packet);
    }
}

void Recorder::onGap() {
    std::lock_guard lock(mutex_);
    if (thread_) {
        thread_->cut();
    }
}

void Recorder::onEnd() {
    std::lock_guard lock(mutex_);
    streams_.reset();
    if (thread_) {
        thread_->begin(nullptr);
    }
}

}  // namespace kelp
