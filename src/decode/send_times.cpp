#include "decode/send_times.h"

#include <algorithm>

namespace kelp {

namespace {

constexpr size_t kMaxEntries = 101;
constexpr uint64_t kMaxAgeMs = 5000;

uint64_t distance(int64_t a, int64_t b) {
    return a > b ? static_cast<uint64_t>(a) - static_cast<uint64_t>(b)
                 : static_cast<uint64_t>(b) - static_cast<uint64_t>(a);
}

}  // namespace

void SendTimes::put(int64_t pts, int64_t nowMs) {
    if (entries_.size() >= kMaxEntries || (!entries_.empty() && distance(pts, entries_.front().pts) > kMaxAgeMs)) {
        entries_.clear();
    }
    const auto place = find(pts);
    if (place != entries_.end() && place->pts == pts) {
        place->sentMs = nowMs;
    } else {
        entries_.insert(place, {pts, nowMs});
    }
}

std::optional<int64_t> SendTimes::take(int64_t pts) {
    const auto place = find(pts);
    if (place == entries_.end() || place->pts != pts) {
        return std::nullopt;
    }
    const int64_t sentMs = place->sentMs;
    entries_.erase(place);
    return sentMs;
}

void SendTimes::clear() {
    entries_.clear();
}

std::vector<SendTimes::Entry>::iterator SendTimes::find(int64_t pts) {
    return std::lower_bound(entries_.begin(), entries_.end(), pts,
                            [](const Entry& entry, int64_t time) { return entry.pts < time; });
}

}  // namespace kelp
