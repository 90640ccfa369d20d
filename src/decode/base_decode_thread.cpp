#include "decode/base_decode_thread.h"

#include <algorithm>
#include <utility>

#include "clock/wrapping_math.h"
#include "decode/packet_time.h"
#include "input/loop_turn.h"
#include "input/media_packet.h"
#include "input/tick_math.h"
#include "kelp_player/log.h"

namespace kelp {

namespace {

constexpr char kTag[] = "BaseDecodeThread";
constexpr int kNoRoomRestMs = 30;
constexpr int64_t kPacketBytes = 256;  // that a packet takes beside its data

int64_t bytesOf(const MediaPacket& packet) {
    return packet.size + kPacketBytes;
}

// The packet's time in milliseconds, worked out in integers.
long long logTimeMs(const MediaPacket& packet) {
    return packet.timeBaseDen == 0 ? packet.pts : ticksToMs(packet.pts, packet.timeBaseNum, packet.timeBaseDen);
}

}  // namespace

BaseDecodeThread::BaseDecodeThread(std::string name, int64_t leadInMs)
    : BaseThread(name), threadName_(std::move(name)), seekSkip_(leadInMs) {
}

void BaseDecodeThread::Run() {
    Log::Debug(kTag, "[%s], %s\n", threadName_.c_str(), "Run");
    setName(threadName_.c_str());

    while (!isStopRequested()) {
        if (const auto seekTimeMs = seekAsked_.take()) {
            onSeek(static_cast<int>(*seekTimeMs), /*flush=*/true);
        }
        // In this order: what goes after the look is counted after it, and ends the rest or lets none begin.
        const unsigned int taken = taken_;
        if (!canDecode()) {
            rest(taken == 0 ? kNoRoomRestMs : Rest::kForeverMs,
                 [&] { return seekAsked_.isPending() || taken_ != taken; });
            continue;
        }
        auto packet = takePacket();
        if (dropped_ + undelivered_ > 0) {
            onLeftOut(std::exchange(dropped_, 0), std::exchange(undelivered_, 0));
        }
        if (packet) {
            decode(std::move(packet));
            decoding_ = false;
        }
    }

    dropPackets();
    onExit();
}

void BaseDecodeThread::dropPackets() {
    std::lock_guard lock(queueMutex_);
    std::deque<std::shared_ptr<MediaPacket>> dropped;
    packetQueue_.swap(dropped);
    queuedBytes_ = 0;
    noteLevel();
}

std::shared_ptr<MediaPacket> BaseDecodeThread::takePacket() {
    std::unique_lock lock(queueMutex_);
    // What is queued now came after that seek: the decoder has to be flushed first.
    if (seekAsked_.isPending()) {
        return nullptr;
    }
    // Under the lock: who has begun a seek and then finds nothing left out here can be sure that nothing will be.
    const auto due = dueMs();
    seekSkip_.noteDelivered(deliveredMs());
    dropped_ = seekSkip_.countDropped(packetQueue_, due);
    for (int i = 0; i < dropped_; ++i) {
        popPacket();
    }
    if (packetQueue_.empty()) {
        // A stop that came after the loop's test has given its signal already.
        if (!isStopRequested() && dropped_ == 0) {
            queueCond_.wait(lock);
        }
        return nullptr;
    }
    auto packet = popPacket();
    decoding_ = true;
    seekSkip_.take(*packet, packetQueue_);
    undelivered_ = seekSkip_.leaveOutIfLate(*packet, packetQueue_, due) + seekSkip_.takeOvertaken();
    return packet;
}

std::shared_ptr<MediaPacket> BaseDecodeThread::popPacket() {
    auto packet = std::move(packetQueue_.front());
    packetQueue_.pop_front();
    queuedBytes_ -= bytesOf(*packet);
    noteLevel();
    return packet;
}

bool BaseDecodeThread::start() {
    running_ = startThread();
    return running_;
}

int BaseDecodeThread::fillPacket(std::shared_ptr<MediaPacket> packet) {
    std::lock_guard lock(queueMutex_);
    queuedBytes_ += bytesOf(*packet);
    packetQueue_.push_back(std::move(packet));
    noteLevel();
    const int size = static_cast<int>(packetQueue_.size());
    queueCond_.notify_all();
    return size;
}

int BaseDecodeThread::getQueuePacketSize() {
    std::lock_guard lock(queueMutex_);
    return static_cast<int>(packetQueue_.size());
}

void BaseDecodeThread::seek(int seekTimeMs) {
    std::lock_guard lock(queueMutex_);
    Log::Debug(kTag, "[%s], %s, seekTimeMs:%d, current queue size:%d\n", threadName_.c_str(), "seek", seekTimeMs,
               static_cast<int>(packetQueue_.size()));
    if (!packetQueue_.empty()) {
        Log::Debug(kTag, "[%s], %s, queue range:[%lld, %lld]\n", threadName_.c_str(), "seek",
                   logTimeMs(*packetQueue_.front()), logTimeMs(*packetQueue_.back()));
    }
    std::deque<std::shared_ptr<MediaPacket>> dropped;
    packetQueue_.swap(dropped);
    queuedBytes_ = 0;
    noteLevel();
    seekAsked_.post(seekTimeMs);
    endRest();
}

// The packets of orders, and of the end, have no time.
void BaseDecodeThread::noteLevel() {
    const auto last =
        std::find_if(packetQueue_.rbegin(), packetQueue_.rend(), [](const auto& packet) { return packet->data; });
    int64_t durationMs = 0;
    if (last != packetQueue_.rend() && packetQueue_.front()->data) {
        // What leads into a turn of a loop is none of its length.
        const auto timeMs = [](const MediaPacket& packet) {
            const int64_t lineMs = lineTimeMs(packet);
            return packet.turn && packet.turn->isEntered() ? std::max(lineMs, packet.turn->lineFromMs()) : lineMs;
        };
        durationMs = wrappingSubtract(timeMs(**last), timeMs(*packetQueue_.front()));
    }
    level_.set(packetQueue_.size(), durationMs, queuedBytes_);
}

std::unique_lock<std::mutex> BaseDecodeThread::aim(int seekTimeMs, bool flush) {
    auto lock = flush ? queueLock() : std::unique_lock<std::mutex>();
    seekSkip_.aim(seekTimeMs, flush);
    return lock;
}

void BaseDecodeThread::skipTo(int seekTimeMs) {
    std::lock_guard lock(queueMutex_);
    seekSkip_.aim(seekTimeMs, /*flush=*/false);
}

bool BaseDecodeThread::isLeftOut(int64_t timeMs) {
    std::lock_guard lock(queueMutex_);
    return seekSkip_.isLeftOut(timeMs);
}

void BaseDecodeThread::framesTaken() {
    ++taken_;
    endRest();
}

bool BaseDecodeThread::checkBuffer(int seekTimeMs) {
    std::lock_guard lock(queueMutex_);
    return reaches("checkBuffer", seekTimeMs);
}

bool BaseDecodeThread::endsBehind(int seekTimeMs) {
    std::lock_guard lock(queueMutex_);
    if (packetQueue_.empty() || packetQueue_.back()->data || seekSkip_.isLeftOut(seekTimeMs)) {
        return false;
    }
    bool isBehindOne = false;
    bool isAheadOfOne = false;
    for (const auto& packet : packetQueue_) {
        if (packet->track != packetQueue_.front()->track || packet->turn || packet->flush) {
            return false;
        }
        if (packet->data) {
            isBehindOne = isBehindOne || lineTimeMs(*packet) <= seekTimeMs;
            isAheadOfOne = isAheadOfOne || lineTimeMs(*packet) >= seekTimeMs;
        }
    }
    return isBehindOne && isAheadOfOne;
}

bool BaseDecodeThread::clearBuffer(int seekTimeMs) {
    std::lock_guard lock(queueMutex_);
    if (!reaches("clearBuffer", seekTimeMs)) {
        return false;
    }
    onSeek(seekTimeMs, false);
    return true;
}

bool BaseDecodeThread::reaches(const char* operation, int seekTimeMs) {
    Log::Debug(kTag, "[%s], %s, seekTimeMs:%d, qsz:%d\n", threadName_.c_str(), operation, seekTimeMs,
               static_cast<int>(packetQueue_.size()));
    if (packetQueue_.empty()) {
        return false;
    }
    // One stream, one time base; two where another track follows.
    if (packetQueue_.front()->track != packetQueue_.back()->track) {
        return false;
    }
    const double scale = msPerTick(*packetQueue_.front());
    const auto lineMs = [scale](const MediaPacket& packet) {
        return wrappingAdd(scaleTicks(packet.pts, scale), packet.turn ? packet.turn->shiftMs : 0);
    };
    const int64_t firstMs = lineMs(*packetQueue_.front());
    const int64_t lastMs = lineMs(*packetQueue_.back());
    Log::Debug(kTag, "[%s], %s, seek time %d, frame buffer range:[%lld, %lld]\n", threadName_.c_str(), operation,
               seekTimeMs, static_cast<long long>(firstMs), static_cast<long long>(lastMs));
    if (seekTimeMs > lastMs || seekSkip_.isLeftOut(seekTimeMs)) {
        Log::Debug(kTag, "[%s], %s, out of range\n", threadName_.c_str(), operation);
        return false;
    }
    return true;
}

void BaseDecodeThread::stop() {
    requestStop();
    prepareStop();
    joinThread();
    running_ = false;
    dropPackets();  // that came behind the thread's end
}

void BaseDecodeThread::prepareStop() {
    BaseThread::prepareStop();
    std::lock_guard lock(queueMutex_);
    queueCond_.notify_all();
}

void BaseDecodeThread::stopIfRunning() {
    if (running_) {
        stop();
    }
}

}  // namespace kelp
