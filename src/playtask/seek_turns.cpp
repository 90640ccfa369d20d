#include "playtask/seek_turns.h"

#include <algorithm>

#include "kelp_player/log.h"

namespace kelp {

constexpr const char* kTag = "PlayTask";

const SeekTurns::RulePoints& SeekTurns::pointsOf(SeekRule rule) {
    static constexpr RulePoints kStandard{.newestGoesFirst = false,
                                          .endsFrom = Phase::Asked,
                                          .filmEndsFrom = Phase::Idle,
                                          .failureEnds = false,
                                          .frameHoldsTarget = false};
    static constexpr RulePoints kExact{.newestGoesFirst = true,
                                       .endsFrom = Phase::Arrived,
                                       .filmEndsFrom = Phase::Read,
                                       .failureEnds = true,
                                       .frameHoldsTarget = true};
    return rule == SeekRule::Exact ? kExact : kStandard;
}

void SeekTurns::setRule(SeekRule rule) {
    std::lock_guard lock(mutex_);
    nextRule_ = rule;
}

bool SeekTurns::request(int timeMs) {
    std::lock_guard lock(mutex_);
    if (parkIfRunning(timeMs)) {
        return true;
    }
    phase_ = Phase::Due;
    rule_ = nextRule_;
    if (points().newestGoesFirst) {
        ++turn_;
        waiting_ = 0;
    }
    return false;
}

bool SeekTurns::park(int timeMs) {
    std::lock_guard lock(mutex_);
    return parkIfRunning(timeMs);
}

bool SeekTurns::parkIfRunning(int timeMs) {
    if (!isRunning()) {
        return false;
    }
    // Under the mutex, so that the lines tell the order in which requests and ends have met.
    Log::Debug(kTag, "%s, seekTimeMs:%d, reqQueue.size:%d, now is seeking...\n", "seek", timeMs, waiting_);
    if (waiting_ == 0 || newestMs_ != timeMs) {
        newestMs_ = timeMs;
        ++waiting_;
    }
    return true;
}

void SeekTurns::served() {
    std::lock_guard lock(mutex_);
    if (phase_ == Phase::Due) {
        phase_ = Phase::Idle;
    }
}

void SeekTurns::start(int timeMs) {
    std::lock_guard lock(mutex_);
    if (phase_ == Phase::Due) {
        phase_ = Phase::Asked;
        targetMs_ = timeMs;
    }
}

void SeekTurns::taken() {
    std::lock_guard lock(mutex_);
    if (phase_ == Phase::Asked) {
        phase_ = Phase::Read;
    }
}

void SeekTurns::arrived() {
    std::lock_guard lock(mutex_);
    if (isRunning()) {
        phase_ = Phase::Arrived;
    }
}

std::optional<SeekTurns::Next> SeekTurns::firstFrame(FrameOf of) {
    std::lock_guard lock(mutex_);
    if (phase_ >= points().endsFrom && (of == FrameOf::Seek || !points().frameHoldsTarget)) {
        end();
    }
    // Where the newest goes first nothing waits while one is due.
    if (isRunning() || waiting_ == 0) {
        return std::nullopt;
    }
    return handOn();
}

SeekTurns::Next SeekTurns::handOn() {
    const Next next{newestMs_, waiting_, turn_};
    Log::Debug(kTag, "%s, startSeek seekTimeMs:%d, queueSize:%d\n", "processBufferedSeekRequest", next.timeMs,
               next.waiting);
    waiting_ = 0;
    phase_ = Phase::Due;
    return next;
}

void SeekTurns::noMoreFrame() {
    std::lock_guard lock(mutex_);
    if (phase_ >= points().endsFrom) {
        end();
    }
}

bool SeekTurns::completed() {
    std::lock_guard lock(mutex_);
    if (phase_ != Phase::Idle && phase_ < points().filmEndsFrom) {
        return false;
    }
    if (isRunning()) {
        end();
        waiting_ = points().newestGoesFirst ? waiting_ : 0;
    }
    return !points().newestGoesFirst || waiting_ == 0;
}

bool SeekTurns::failed() {
    return !pointsOf(rule()).failureEnds || completed();
}

std::optional<SeekTurns::Next> SeekTurns::newest() {
    std::lock_guard lock(mutex_);
    const bool isLeft = points().newestGoesFirst && phase_ == Phase::Idle && waiting_ > 0;
    return isLeft ? std::optional(handOn()) : std::nullopt;
}

void SeekTurns::forget() {
    std::lock_guard lock(mutex_);
    end();
    waiting_ = 0;
    ++turn_;
}

void SeekTurns::end() {
    phase_ = Phase::Idle;
    targetMs_ = kNone;
}

bool SeekTurns::isDue(unsigned int turn) const {
    std::lock_guard lock(mutex_);
    return turn == turn_ && (phase_ == Phase::Due || !points().newestGoesFirst);
}

bool SeekTurns::isTaken() const {
    std::lock_guard lock(mutex_);
    return phase_ != Phase::Asked || phase_ >= points().filmEndsFrom;
}

bool SeekTurns::hasNext() const {
    std::lock_guard lock(mutex_);
    return waiting_ > 0 || phase_ == Phase::Due;
}

int SeekTurns::waiting() const {
    std::lock_guard lock(mutex_);
    return waiting_;
}

SeekRule SeekTurns::rule() const {
    std::lock_guard lock(mutex_);
    return rule_;
}

bool SeekTurns::isFrameAwaited() const {
    std::lock_guard lock(mutex_);
    return points().frameHoldsTarget && isRunning();
}

int64_t SeekTurns::positionAt(int64_t framePtsMs) const {
    std::lock_guard lock(mutex_);
    const bool isTargets = points().frameHoldsTarget && phase_ == Phase::Arrived;
    return isTargets ? std::max<int64_t>(framePtsMs, targetMs_) : framePtsMs;
}

std::optional<int> SeekTurns::target() const {
    const int timeMs = targetMs_;
    return timeMs == kNone ? std::nullopt : std::optional(timeMs);
}

}  // namespace kelp
