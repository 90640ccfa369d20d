#include "subtitle/subtitle_track.h"

#include <algorithm>
#include <limits>

namespace kelp {

namespace {

constexpr size_t kMaxBytes = size_t{32} << 20;
constexpr size_t kMaxEvents = 20'000;

}  // namespace

void SubtitleTrack::add(SubtitleEvent event) {
    std::lock_guard lock(mutex_);
    const bool endsWithNext = !head_.isText || event.endMs == SubtitleEvent::kOpenEnd;
    if (isKnown(event, endsWithNext)) {
        return;
    }
    ++version_;
    const int64_t startMs = event.startMs;
    endBefore(startMs);
    if (event.isEmpty()) {
        return;
    }
    if (const auto next = events_.lower_bound({startMs + 1, 0}); endsWithNext && next != events_.end()) {
        event.endMs = std::min(event.endMs, next->first.first);
    }
    bytes_ += event.bytes();
    openCount_ += endsWithNext ? 1 : 0;
    events_[{startMs, ++count_}] = {std::make_shared<const SubtitleEvent>(std::move(event)), endsWithNext};
    makeRoom(startMs);
}

bool SubtitleTrack::isKnown(const SubtitleEvent& event, bool endsWithNext) const {
    const auto end = events_.lower_bound({event.startMs + 1, 0});
    for (auto at = events_.lower_bound({event.startMs, 0}); at != end; ++at) {
        SubtitleEvent known = *at->second.event;
        if (endsWithNext && at->second.endsWithNext) {
            known.endMs = event.endMs;  // the next one may have ended it
        }
        if (known == event) {
            return true;
        }
    }
    return false;
}

void SubtitleTrack::endBefore(int64_t timeMs) {
    if (openCount_ == 0) {
        return;
    }
    for (auto at = events_.lower_bound({timeMs, 0}); at != events_.begin();) {
        --at;
        if (!at->second.endsWithNext) {
            continue;
        }
        if (at->second.event->endMs <= timeMs) {
            return;
        }
        auto ended = std::make_shared<SubtitleEvent>(*at->second.event);
        ended->endMs = timeMs;
        at->second.event = std::move(ended);
    }
}

// Those that lie farthest from where it grows go first.
void SubtitleTrack::makeRoom(int64_t nearMs) {
    while (events_.size() > 1 && (bytes_ > kMaxBytes || events_.size() > kMaxEvents)) {
        const auto last = std::prev(events_.end());
        const bool isFirstFarther = nearMs - events_.begin()->first.first >= last->first.first - nearMs;
        const auto farthest = isFirstFarther ? events_.begin() : last;
        bytes_ -= farthest->second.event->bytes();
        openCount_ -= farthest->second.endsWithNext ? 1 : 0;
        events_.erase(farthest);
    }
}

void SubtitleTrack::gap() {
    std::lock_guard lock(mutex_);
    if (!head_.isText) {
        events_.clear();
        bytes_ = openCount_ = 0;
        ++version_;
    }
}

SubtitleTrack::Moment SubtitleTrack::at(int64_t timeMs) const {
    std::lock_guard lock(mutex_);
    Moment moment{{}, std::numeric_limits<int64_t>::min(), std::numeric_limits<int64_t>::max()};
    for (const auto& [key, known] : events_) {
        const Event& event = known.event;
        if (event->startMs > timeMs) {
            moment.toMs = std::min(moment.toMs, event->startMs);
            break;
        }
        moment.fromMs = std::max(moment.fromMs, event->startMs);
        if (event->endMs <= timeMs) {
            moment.fromMs = std::max(moment.fromMs, event->endMs);
        } else {
            moment.toMs = std::min(moment.toMs, event->endMs);
            moment.events.push_back(event);
        }
    }
    return moment;
}

std::vector<SubtitleTrack::Event> SubtitleTrack::all() const {
    std::lock_guard lock(mutex_);
    std::vector<Event> events;
    events.reserve(events_.size());
    for (const auto& [key, known] : events_) {
        events.push_back(known.event);
    }
    return events;
}

unsigned int SubtitleTrack::version() const {
    std::lock_guard lock(mutex_);
    return version_;
}

}  // namespace kelp
