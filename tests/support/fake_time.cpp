#include "support/fake_time.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <limits>
#include <mutex>
#include <thread>

#include "runtime/kelp_time.h"
#include "runtime/never_destroyed.h"
#include "runtime/rest.h"

namespace kelp::test {

namespace {

constexpr int64_t kStartUs = 1'000'000'000;
constexpr int64_t kNeverUs = std::numeric_limits<int64_t>::max();
constexpr size_t kMaxRecordedSleeps = 10'000;

std::chrono::steady_clock::time_point realDeadline(int ms) {
    return std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
}

int wholeMs(int64_t us) {
    return static_cast<int>(std::min<int64_t>(us / 1000, Rest::kForeverMs));
}

bool isBackgroundThread() {
    char name[16] = {};
    pthread_getname_np(pthread_self(), name, sizeof(name));
    return std::strcmp(name, "WorkerTimer") == 0;
}

class State {
public:
    void reset(int64_t nowUs) {
        std::lock_guard lock(mutex_);
        manual_ = false;
        now_ = nowUs;
        dateUs_ = 0;
        wakeIf([](const Sleeper&) { return true; });
        sleptMs_ = 0;
        sleepCount_ = 0;
        sleeps_.clear();
    }

    void setManual(bool manual) {
        std::lock_guard lock(mutex_);
        if (manual_ && !manual) {
            int64_t last = now_;
            for (const Sleeper* sleeper : sleepers_) {
                if (!sleeper->background && sleeper->wakeUpUs != kNeverUs) {
                    last = std::max(last, sleeper->wakeUpUs);
                }
            }
            moveTo(last);
            wakeIf([](const Sleeper&) { return true; });
        }
        manual_ = manual;
    }

    void setNow(int64_t nowUs) {
        std::lock_guard lock(mutex_);
        moveTo(nowUs);
    }

    void advance(int64_t us) {
        std::lock_guard lock(mutex_);
        moveTo(now_ + us);
    }

    int64_t now() const { return now_; }

    void setDateBy(int64_t us) { dateUs_ += us; }
    int64_t wall() const { return now_ + dateUs_; }

    bool waitForSleepers(int count, int realTimeoutMs) {
        std::unique_lock lock(mutex_);
        return waitForSleepers(lock, count, realTimeoutMs);
    }

    bool runFor(int64_t ms, int threads, int realTimeoutMs) {
        std::unique_lock lock(mutex_);
        const int64_t end = now_ + ms * 1000;
        while (waitForSleepers(lock, threads, realTimeoutMs)) {
            if (now_ >= end) {
                return true;
            }
            int64_t next = end;
            for (const Sleeper* sleeper : sleepers_) {
                next = std::min(next, sleeper->wakeUpUs);
            }
            moveTo(next);
        }
        return false;
    }

    void sleep(int ms) {
        std::unique_lock lock(mutex_);
        sleep(lock, ms, now_ + int64_t{ms} * 1000, nullptr, nullptr);
    }

    void restFor(int64_t us, const Rest* rest, const std::function<bool()>& isOver) {
        std::unique_lock lock(mutex_);
        if (!isOver()) {
            sleep(lock, wholeMs(us), us == kNeverUs ? kNeverUs : now_ + us, rest, &isOver);
        }
    }

    bool waitFor(int64_t us, const Rest* rest, const std::function<bool()>& isOver) {
        std::unique_lock lock(mutex_);
        if (!isOver()) {
            const bool isReal = !manual_ && us != kNeverUs;
            Sleeper self{isReal || us == kNeverUs ? kNeverUs : now_ + us, rest, &isOver};
            sleepers_.push_back(&self);
            asleep_.notify_all();
            if (isReal) {
                wake_.wait_for(lock, std::chrono::microseconds(us), [&] { return self.awake; });
                std::erase(sleepers_, &self);
            } else {
                wake_.wait(lock, [&] { return self.awake; });
            }
        }
        return isOver();
    }

    void restUntil(int64_t timeUs, const Rest* rest, const std::function<bool()>& isOver) {
        std::unique_lock lock(mutex_);
        if (!isOver() && timeUs > now_) {
            sleep(lock, wholeMs(timeUs - now_), timeUs, rest, &isOver);
        }
    }

    void endRest(const Rest* rest) {
        std::lock_guard lock(mutex_);
        wakeIf([&](const Sleeper& sleeper) { return sleeper.rest == rest && (*sleeper.isOver)(); });
    }

    int64_t sleptMs() {
        std::lock_guard lock(mutex_);
        return sleptMs_;
    }

    int64_t sleepCount() {
        std::lock_guard lock(mutex_);
        return sleepCount_;
    }

    std::vector<int> sleeps() {
        std::lock_guard lock(mutex_);
        return sleeps_;
    }

private:
    // A thread that sleeps in the manual mode; it lies on that thread's stack.
    struct Sleeper {
        int64_t wakeUpUs = 0;
        const Rest* rest = nullptr;  // null for a mere sleep
        const std::function<bool()>* isOver = nullptr;
        bool background = false;
        bool awake = false;
    };

    void sleep(std::unique_lock<std::mutex>& lock, int ms, int64_t wakeUpUs, const Rest* rest,
               const std::function<bool()>* isOver) {
        ++sleepCount_;
        sleptMs_ += ms;
        if (sleeps_.size() < kMaxRecordedSleeps) {
            sleeps_.push_back(ms);
        }
        const bool background = isBackgroundThread();
        if (wakeUpUs > now_ && (manual_ || background || wakeUpUs == kNeverUs)) {
            Sleeper self{wakeUpUs, rest, isOver, background};
            sleepers_.push_back(&self);
            asleep_.notify_all();
            wake_.wait(lock, [&] { return self.awake; });
            return;
        }
        moveTo(wakeUpUs);
        lock.unlock();
        std::this_thread::yield();
    }

    // With mutex_ held.
    void moveTo(int64_t nowUs) {
        now_ = nowUs;
        wakeIf([&](const Sleeper& sleeper) { return sleeper.wakeUpUs <= nowUs; });
    }

    // Strikes sleepers off at once, so that none counts as asleep while it wakes. With mutex_ held.
    template <class Predicate>
    void wakeIf(Predicate predicate) {
        std::erase_if(sleepers_, [&](Sleeper* sleeper) { return sleeper->awake = predicate(*sleeper); });
        wake_.notify_all();
    }

    bool waitForSleepers(std::unique_lock<std::mutex>& lock, int count, int realTimeoutMs) {
        return asleep_.wait_until(lock, realDeadline(realTimeoutMs),
                                  [&] { return static_cast<int>(sleepers_.size()) >= count; });
    }

    std::mutex mutex_;                    // guards all but now_'s reading
    std::condition_variable wake_;        // the sleepers wait here
    std::condition_variable asleep_;      // and those that wait for sleepers here
    std::atomic<int64_t> now_{kStartUs};  // microseconds; written with mutex_ held
    std::atomic<int64_t> dateUs_{0};      // the wall clock's lead
    bool manual_ = false;
    std::vector<Sleeper*> sleepers_;
    int64_t sleptMs_ = 0;
    int64_t sleepCount_ = 0;
    std::vector<int> sleeps_;
};

// Static objects may log, and so read the clock, before and after main.
State& state() {
    static NeverDestroyed<State> instance;
    return *instance;
}

}  // namespace

void FakeTime::reset(int64_t nowMs) {
    state().reset(nowMs * 1000);
}
void FakeTime::setManual(bool manual) {
    state().setManual(manual);
}
void FakeTime::setNowMs(int64_t nowMs) {
    state().setNow(nowMs * 1000);
}
void FakeTime::advanceMs(int64_t ms) {
    state().advance(ms * 1000);
}
void FakeTime::advanceUs(int64_t us) {
    state().advance(us);
}
int64_t FakeTime::nowMs() {
    return state().now() / 1000;
}
int64_t FakeTime::nowUs() {
    return state().now();
}
void FakeTime::setDateBy(int64_t ms) {
    state().setDateBy(ms * 1000);
}
bool FakeTime::waitForSleepers(int count, int realTimeoutMs) {
    return state().waitForSleepers(count, realTimeoutMs);
}
bool FakeTime::runFor(int64_t ms, int threads, int realTimeoutMs) {
    return state().runFor(ms, threads, realTimeoutMs);
}
int64_t FakeTime::sleptMs() {
    return state().sleptMs();
}
int64_t FakeTime::sleepCount() {
    return state().sleepCount();
}
std::vector<int> FakeTime::sleeps() {
    return state().sleeps();
}

}  // namespace kelp::test

namespace kelp {

int64_t KelpTime::getTimeUs() {
    return test::state().wall();
}

int64_t KelpTime::getTimeMs() {
    return test::state().wall() / 1000;
}

int64_t KelpTime::getSteadyUs() {
    return test::state().now();
}

void KelpTime::sleepMs(int ms) {
    sleepUs(static_cast<int>(static_cast<uint32_t>(ms) * 1000U));
}

void KelpTime::sleepUs(int us) {
    test::state().sleep(us > 0 ? us / 1000 : 0);
}

void Rest::forMs(int ms, const std::function<bool()>& isOver) {
    test::state().restFor(ms == kForeverMs ? test::kNeverUs : int64_t{ms} * 1000, this, isOver);
}

bool Rest::waitMs(int ms, const std::function<bool()>& isOver) {
    if (ms == kForeverMs) {
        test::state().waitFor(test::kNeverUs, this, isOver);
        return true;
    }
    return test::state().waitFor(int64_t{ms} * 1000, this, isOver);
}

void Rest::forUs(int64_t us, const std::function<bool()>& isOver) {
    test::state().restFor(us, this, isOver);
}

void Rest::untilMs(int64_t timeMs, const std::function<bool()>& isOver) {
    const bool isForever = timeMs >= test::kNeverUs / 1000;
    test::state().restUntil(isForever ? test::kNeverUs : timeMs * 1000, this, isOver);
}

void Rest::end() {
    test::state().endRest(this);
}

}  // namespace kelp
