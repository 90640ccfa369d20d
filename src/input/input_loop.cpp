#include "input/input_loop.h"

#include <algorithm>
#include <cstdlib>
#include <limits>

namespace kelp {

namespace {

constexpr size_t kMostPieces = 1000;         // more turns than wait in the queues
constexpr int64_t kMostApartUs = 2'000'000;  // that streams lie in an input
constexpr int kMostEmptyTurns = 2;
constexpr int64_t kMostWrongUs = 1'000'000;  // by which a film's length may be another one than it says

int64_t roundedMs(int64_t us) {
    return (us + 500) / 1000;
}

}  // namespace

void InputLoop::ask(std::optional<Loop> loop) {
    std::lock_guard lock(mutex_);
    asked_ = loop;
    isAsked_ = true;
}

size_t InputLoop::find(int64_t lineMs) const {
    const auto later = std::ranges::upper_bound(pieces_, lineMs, {}, &Piece::fromMs) - pieces_.begin();
    return static_cast<size_t>(std::max<std::ptrdiff_t>(later - 1, 0));
}

int64_t InputLoop::shiftMs(int64_t lineMs) const {
    std::lock_guard lock(mutex_);
    return pieces_.empty() ? 0 : pieces_[find(lineMs)].turn->shiftMs;
}

int64_t InputLoop::lastFromMs() const {
    std::lock_guard lock(mutex_);
    return pieces_.empty() ? std::numeric_limits<int64_t>::min() : pieces_.back().fromMs;
}

void InputLoop::setEnd(LoopTurn& turn) const {
    turn.toUs = LoopTurn::kOpen;
    if (loop_) {
        turn.toUs = std::min(loop_->endMs == Loop::kFilmEnd ? LoopTurn::kOpen : loop_->endMs * 1000, knownEndUs_);
    }
}

bool InputLoop::take() {
    std::lock_guard lock(mutex_);
    isAsked_ = isGivenUp_ = false;
    if (loop_ == asked_) {
        return false;
    }
    loop_ = asked_;
    beginTurn();
    if (!loop_ && !turn_) {
        return true;
    }
    auto turn = std::make_shared<LoopTurn>(turn_ ? *turn_ : LoopTurn{});
    setEnd(*turn);
    turn_ = std::move(turn);
    if (pieces_.empty()) {
        pieces_.push_back({std::numeric_limits<int64_t>::min(), turn_});
    } else {
        pieces_.back().turn = turn_;
    }
    return true;
}

void InputLoop::beginTurn() {
    isPicturesRead_ = isSoundRead_ = false;
    latestUs_ = 0;
    packets_ = emptyTurns_ = 0;
}

bool InputLoop::isBehind(Stream stream, int64_t orderUs) {
    if (orderUs < turn_->toUs) {
        return false;
    }
    (stream == Stream::Pictures ? isPicturesRead_ : isSoundRead_) = true;
    latestUs_ = std::max(latestUs_, orderUs);
    return true;
}

void InputLoop::noteHandedOn(int64_t shownUs) {
    packets_ += shownUs >= turn_->fromUs && shownUs < turn_->toUs ? 1 : 0;
}

bool InputLoop::isRead(bool hasVideo, bool hasSound) const {
    if (!isEndMet()) {
        return false;
    }
    const bool isAllRead = (isPicturesRead_ || !hasVideo) && (isSoundRead_ || !hasSound);
    return isAllRead || latestUs_ - turn_->toUs > kMostApartUs;
}

bool InputLoop::goRound(int64_t endUs, int64_t durationUs) {
    const int64_t startUs = loop_->startMs * 1000;
    const int emptyTurns = packets_ > 0 ? 0 : emptyTurns_ + 1;
    if (!isEndMet() && endUs < turn_->toUs) {
        // It may have broken off early, but hardly twice at the same place.
        const bool isFilmEnd = durationUs <= 0 || std::abs(endUs - durationUs) <= kMostWrongUs || endUs == lastEndUs_;
        knownEndUs_ = isFilmEnd ? endUs : knownEndUs_;
        lastEndUs_ = endUs;
    }
    if (endUs <= startUs || emptyTurns > kMostEmptyTurns) {
        end();
        return false;
    }
    auto turn = std::make_shared<LoopTurn>();
    turn->shiftUs = endUs + turn_->shiftUs - startUs;  // the line is never behind the film
    turn->shiftMs = roundedMs(turn->shiftUs);
    turn->fromUs = startUs;
    setEnd(*turn);
    beginTurn();
    emptyTurns_ = emptyTurns;
    turn_ = std::move(turn);
    std::lock_guard lock(mutex_);
    pieces_.push_back({turn_->lineFromMs(), turn_});
    if (pieces_.size() > kMostPieces) {
        pieces_.pop_front();
    }
    isBent_.store(true, std::memory_order_release);
    return true;
}

void InputLoop::cancelTurn() {
    {
        std::lock_guard lock(mutex_);
        pieces_.pop_back();
        turn_ = pieces_.back().turn;
        isBent_ = turn_->shiftMs != 0 || pieces_.size() > 1;
    }
    end();
}

void InputLoop::end() {
    loop_.reset();
    isGivenUp_ = true;
    auto turn = std::make_shared<LoopTurn>(*turn_);
    setEnd(*turn);
    turn_ = std::move(turn);
    std::lock_guard lock(mutex_);
    pieces_.back().turn = turn_;
}

void InputLoop::seek(int64_t lineMs, int64_t shiftMs) {
    beginTurn();
    if (!loop_ && shiftMs == 0) {
        turn_ = nullptr;
        std::lock_guard lock(mutex_);
        pieces_.clear();
        isBent_ = false;
        return;
    }
    std::lock_guard lock(mutex_);
    LoopTurn turn;
    const size_t known = find(lineMs);
    if (shiftMs != 0 && known < pieces_.size() && pieces_[known].turn->shiftMs == shiftMs) {
        turn = *pieces_[known].turn;
        pieces_.resize(known + 1);
    } else {
        turn.shiftMs = shiftMs;
        turn.shiftUs = shiftMs * 1000;
        pieces_.assign(1, {std::numeric_limits<int64_t>::min(), nullptr});
    }
    setEnd(turn);
    turn_ = std::make_shared<LoopTurn>(turn);
    pieces_.back().turn = turn_;
    isBent_ = shiftMs != 0 || pieces_.size() > 1;
}

void InputLoop::forget() {
    std::lock_guard lock(mutex_);
    loop_.reset();
    turn_ = nullptr;
    pieces_.clear();
    isBent_ = false;
    isAsked_ = isGivenUp_ = false;
    asked_.reset();
    knownEndUs_ = lastEndUs_ = LoopTurn::kOpen;
    beginTurn();
}

}  // namespace kelp
