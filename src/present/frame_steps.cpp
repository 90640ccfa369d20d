#include "present/frame_steps.h"

#include <algorithm>
#include <utility>

#include "decode/decoded_frame.h"
#include "decode/seek_skip.h"

namespace kelp {

namespace {

constexpr size_t kMostPassed = 8;
constexpr uint64_t kMostPassedBytes = 64 << 20;
constexpr size_t kMostAsked = 100;  // changes of direction
constexpr int kFarthest = 1'000'000'000;

}  // namespace

void FrameSteps::ask(int frames) {
    if (frames == 0) {
        return;
    }
    const bool isMore = !asked_.empty() && ((asked_.back() > 0) == (frames > 0) || asked_.size() >= kMostAsked);
    if (isMore) {
        asked_.back() = std::clamp(asked_.back(), -kFarthest, kFarthest) + std::clamp(frames, -kFarthest, kFarthest);
    } else {
        asked_.push_back(frames);
    }
    isAnyAsked_ = true;
}

void FrameSteps::drop() {
    asked_.clear();
    isAnyAsked_ = false;
    isShowDue_ = false;
    awaitedMs_ = kNone;
    isLanding_ = false;
}

FrameSteps::Outcome FrameSteps::take(Queue& queue, bool isLast) {
    bool hasMoved = isShowDue_.exchange(false);
    while (!asked_.empty()) {
        const Outcome outcome = asked_.front() > 0 ? goForward(queue, isLast, hasMoved) : goBack(queue, hasMoved);
        if (outcome == Outcome::Wait && hasMoved) {
            return Outcome::Show;
        }
        if (outcome != Outcome::Nothing) {
            return outcome;
        }
        asked_.pop_front();
    }
    isAnyAsked_ = false;
    return hasMoved ? Outcome::Show : Outcome::Nothing;
}

FrameSteps::Outcome FrameSteps::goForward(Queue& queue, bool isLast, bool& hasMoved) {
    int& left = asked_.front();
    for (; left > 0 && queue.size() > (isFrontShown_ ? 1 : 0); --left) {
        if (isFrontShown_) {
            pass(std::move(queue.front()));
            queue.pop();
        }
        isFrontShown_ = hasMoved = true;
    }
    return left > 0 && !isLast ? Outcome::Wait : Outcome::Nothing;
}

FrameSteps::Outcome FrameSteps::goBack(Queue& queue, bool& hasMoved) {
    int& left = asked_.front();
    // Ahead of a picture that was blanked nothing is kept: it is to be decoded anew.
    for (; left < 0 && isFrontShown_ && !passed_.empty() && !queue.front()->isBlanked; ++left) {
        passedBytes_ -= passed_.back()->bytes();
        Queue longer;
        longer.push(std::move(passed_.back()));
        passed_.pop_back();
        for (; !queue.empty(); queue.pop()) {
            longer.push(std::move(queue.front()));
        }
        queue.swap(longer);
        hasMoved = true;
    }
    const int64_t fromMs = isFrontShown_ && !queue.empty() ? queue.front()->pts : shownMs_.load();
    if (left >= 0 || fromMs <= 0 || fromMs > std::numeric_limits<int>::max()) {
        return Outcome::Nothing;
    }
    beforeMs_ = fromMs;
    awaitedMs_ = fromMs - 1;
    return Outcome::Seek;
}

bool FrameSteps::begin(int seekTimeMs) {
    isLanding_ = isAwaited(seekTimeMs);
    isShowDue_ = false;
    isFrontShown_ = false;
    forgetPassed();
    return isLanding_;
}

void FrameSteps::skip(const std::shared_ptr<DecodedFrame>& frame) {
    // What lies farther back may have been left out by the decoder.
    if (isLanding_ && frame->pts > awaitedMs_ - SeekSkip::kShortestLeadInMs) {
        pass(frame);
    }
}

void FrameSteps::land(const DecodedFrame& front) {
    if (front.pts >= beforeMs_) {
        asked_.front() = 0;  // it is the first
    } else {
        ++asked_.front();
    }
    isLanding_ = false;
    awaitedMs_ = kNone;
    isFrontShown_ = true;
    isShowDue_ = true;
    shownMs_ = front.pts;
}

void FrameSteps::showFront(int64_t pts) {
    isFrontShown_ = true;
    shownMs_ = pts;
}

void FrameSteps::leave(int64_t pts) {
    isFrontShown_ = false;
    shownMs_ = pts;
    forgetPassed();
}

void FrameSteps::cut(const Queue& queue) {
    isFrontShown_ = !queue.empty();
    forgetPassed();
}

void FrameSteps::pass(std::shared_ptr<DecodedFrame> frame) {
    if (frame->isBlanked) {
        forgetPassed();
        return;
    }
    passedBytes_ += frame->bytes();
    passed_.push_back(std::move(frame));
    while (passed_.size() > kMostPassed || (passed_.size() > 1 && passedBytes_ > kMostPassedBytes)) {
        passedBytes_ -= passed_.front()->bytes();
        passed_.pop_front();
    }
}

void FrameSteps::forgetPassed() {
    if (!passed_.empty()) {
        passed_.clear();
        passedBytes_ = 0;
    }
}

}  // namespace kelp
