#include "decode/seek_skip.h"

#include <algorithm>
#include <utility>

#include "clock/wrapping_math.h"
#include "decode/packet_time.h"
#include "input/media_packet.h"

namespace kelp {

namespace {

constexpr int kFramesBetween = 3;   // and the target
constexpr int kMostReordered = 16;  // that a decoder holds back for the order of showing
constexpr int64_t kHopelessMs = 2000;
constexpr size_t kMostInside = 64;  // more come out of no decoder

}  // namespace

void SeekSkip::aim(int64_t targetMs, bool flush) {
    targetMs_ = targetMs;
    awaitedMs_ = targetMs;
    laterTaken_ = 0;
    lastDts_ = kNone;
    if (flush) {
        neededFromMs_ = kNone;
        lateToMs_ = kNone;
        earliestMs_ = kNone;
        insideMs_.clear();
        lastTakenMs_ = kNone;
        holder_ = {};
    }
    heldMs_ = lastTakenMs_;
    isHeldKnown_ = lastTakenMs_ <= targetMs;
}

int SeekSkip::countDropped(const Packets& waiting, std::optional<int64_t> dueMs) {
    const bool isLate = dueMs && !waiting.empty() && waiting.front()->data && !waiting.front()->turn &&
                        lineTimeMs(*waiting.front()) < *dueMs;
    if (!isLate) {
        return 0;
    }
    const bool isHopeless = wrappingSubtract(*dueMs, lineTimeMs(*waiting.front())) > kHopelessMs;
    size_t dropped = 0;
    for (size_t i = 0; i < waiting.size(); ++i) {
        const auto* const packet = dynamic_cast<const VideoPacket*>(waiting[i].get());
        // The end, an order, a loop, whose lead-in only looks late, or another track.
        if (!packet || !packet->data || packet->turn || packet->track != waiting.front()->track) {
            break;
        }
        if (packet->keyFrame && (lineTimeMs(*packet) <= *dueMs || (isHopeless && dropped == 0))) {
            dropped = i;
        }
    }
    for (size_t i = 0; i < dropped; ++i) {
        noteOrder(*waiting[i]);
    }
    if (dropped > 0) {
        // Of what times those dropped tell nothing follows. Those behind it that are shown before it refer to them.
        noteOrder(*waiting[dropped]);
        leaveOut(lineTimeMs(*waiting[dropped]));
    }
    return static_cast<int>(dropped);
}

bool SeekSkip::leaveOutIfLate(const MediaPacket& packet, const Packets& behind, std::optional<int64_t> dueMs) {
    if (!packet.data || packet.turn) {
        insideMs_.clear();
        return false;
    }
    if (isLate(packet, behind, dueMs)) {
        return true;
    }
    if (const int64_t time = lineTimeMs(packet); packet.size > 0 && time >= neededFromMs_) {
        if (insideMs_.size() == kMostInside) {
            insideMs_.erase(insideMs_.begin());
        }
        insideMs_.push_back(time);
    }
    return false;
}

bool SeekSkip::isLate(const MediaPacket& packet, const Packets& behind, std::optional<int64_t> dueMs) {
    const int64_t time = lineTimeMs(packet);
    if (time < lateToMs_) {
        return true;
    }
    if (!dueMs || time >= *dueMs) {
        return false;
    }
    for (const auto& other : behind) {
        if (!other->data || other->track != packet.track) {
            return false;
        }
        if (other->size > 0 && lineTimeMs(*other) > time && lineTimeMs(*other) <= *dueMs) {
            leaveOut(time + 1);
            return true;
        }
    }
    return false;
}

void SeekSkip::noteDelivered(int64_t toMs) {
    std::erase_if(insideMs_, [&](int64_t time) { return time <= toMs; });
}

int SeekSkip::takeOvertaken() {
    return std::exchange(overtaken_, 0);
}

void SeekSkip::leaveOut(int64_t toMs) {
    overtaken_ += static_cast<int>(std::erase_if(insideMs_, [&](int64_t time) { return time < toMs; }));
    neededFromMs_ = std::max(neededFromMs_, toMs);
    lateToMs_ = std::max(lateToMs_, toMs);
    earliestMs_ = std::max(earliestMs_, toMs);
}

// Where the times go back they begin anew, and those known so far tell nothing of them.
void SeekSkip::noteOrder(const MediaPacket& packet) {
    if (packet.dts < lastDts_) {
        targetMs_ = kNone;
        neededFromMs_ = kNone;
        lateToMs_ = kNone;
        insideMs_.clear();
    }
    lastDts_ = packet.dts;
}

void SeekSkip::take(const MediaPacket& packet, const Packets& behind) {
    lastTakenMs_ = packet.size > 0 ? std::max(lastTakenMs_, lineTimeMs(packet)) : lastTakenMs_;
    takenBehind_ = countBehind(packet, behind);
    if (takenBehind_ != kNotYet && isHeldKnown_) {
        holder_ = {heldMs_, awaitedMs_};
    }
    if (!packet.data) {
        return;
    }
    noteOrder(packet);
    if (targetMs_ == kNone) {
        return;
    }
    const int64_t time = lineTimeMs(packet);
    if (time > targetMs_ - leadInMs_) {
        targetMs_ = kNone;
    } else if (time >= neededFromMs_ && isUnneeded(time, packet.dts, behind)) {
        neededFromMs_ = time + 1;
        earliestMs_ = targetMs_;
        noteDelivered(time);
    }
}

int SeekSkip::countBehind(const MediaPacket& packet, const Packets& behind) {
    if (awaitedMs_ == kNone) {
        return kNotYet;
    }
    if (lineTimeMs(packet) > awaitedMs_) {
        ++laterTaken_;
    } else if (packet.size > 0) {
        heldMs_ = std::max(heldMs_, lineTimeMs(packet));
    }
    if (laterTaken_ > kMostReordered) {
        awaitedMs_ = kNone;
        return kNotYet;
    }
    for (const auto& other : behind) {
        // None is shown before it is decoded.
        if (lineDecodingMs(*other) > awaitedMs_) {
            return laterTaken_;
        }
        if (lineTimeMs(*other) <= awaitedMs_) {
            return kNotYet;
        }
    }
    return kNotYet;
}

bool SeekSkip::isUnneeded(int64_t time, int64_t dts, const Packets& behind) const {
    int between = 0;
    bool reachesFar = false;
    for (const auto& packet : behind) {
        if (!packet->data || packet->dts < dts) {
            return false;
        }
        dts = packet->dts;
        const int64_t other = lineTimeMs(*packet);
        between += packet->size > 0 && other > time && other <= targetMs_;
        reachesFar = reachesFar || other >= time + leadInMs_;
        if (reachesFar && between >= kFramesBetween) {
            return true;
        }
    }
    return false;
}

}  // namespace kelp
