#include "runtime/worker.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "kelp_player/log.h"
#include "runtime/base_thread.h"
#include "runtime/kelp_time.h"

namespace kelp {

namespace {

const char* const kTag = "Worker";  // also the task thread's name

constexpr unsigned int kMaxUnseenMs = 5;  // until a timer that was added or removed is seen
constexpr int kEmptyPollMs = 10;

constexpr int64_t kNoTimer = std::numeric_limits<int64_t>::min();

// The worker that this thread is one of; null on every other thread.
thread_local const Worker* t_worker = nullptr;
// Of the callable that runs on this thread: Worker::Task::armedMs.
thread_local int64_t t_armedMs = kNoTimer;

void join(std::thread& thread) {
    if (thread.joinable()) {
        thread.join();
    }
}

}  // namespace

Worker::~Worker() {
    close();
    // Threads of a start that came after close: they return at once, but nobody has joined them.
    join(thread_);
    join(timerThread_);
}

void Worker::start() {
    thread_ = std::thread(&Worker::run, this);
    timerThread_ = std::thread(&Worker::timerRun, this);
}

void Worker::task(std::function<void()> func) {
    queue({std::move(func), isOwnThread() ? t_armedMs : kNoTimer});
}

void Worker::queue(Task task) {
    std::lock_guard lock(tasksMutex_);
    tasks_.push_back(std::move(task));
    tasksCond_.notify_all();
}

unsigned int Worker::addTimer(unsigned int intervalMs, bool oneShot, std::function<void()> func) {
    Log::Debug(kTag, "%s, intervalMs:%d, oneShot:%d\n", "addTimer", static_cast<int>(intervalMs), oneShot);
    std::lock_guard lock(timerMutex_);
    TimerInfo timer;
    if (freeTimerIds_.empty()) {
        timer.id = nextTimerId_++;
    } else {
        timer.id = freeTimerIds_.front();
        freeTimerIds_.pop_front();
    }
    timer.func = std::move(func);
    timer.oneShot = oneShot;
    timer.intervalMs = intervalMs;
    timer.lastShotTickMs = KelpTime::getTimeMs();
    newTimers_.push_back(std::move(timer));
    lookWithin(std::min(intervalMs, kMaxUnseenMs));

    const TimerInfo& added = newTimers_.back();
    Log::Debug(kTag, "%s, intervalMs:%d, oneShot:%d, lastShotTickMs:%lld, timer.id:%d\n", "addTimer",
               static_cast<int>(added.intervalMs), added.oneShot, static_cast<long long>(added.lastShotTickMs),
               static_cast<int>(added.id));
    return added.id;
}

void Worker::removeTimer(unsigned int timerId) {
    Log::Debug(kTag, "%s, timerId:%u\n", "removeTimer", timerId);
    std::list<TimerInfo> erased;  // destroyed after the lock's release
    std::lock_guard lock(timerMutex_);
    if (const auto timer = std::ranges::find(timers_, timerId, &TimerInfo::id); timer != timers_.end()) {
        timer->removed = true;
        lookWithin(kMaxUnseenMs);
    } else if (const auto added = std::ranges::find(newTimers_, timerId, &TimerInfo::id); added != newTimers_.end()) {
        freeTimerIds_.push_back(timerId);
        erased.splice(erased.end(), newTimers_, added);
    }
}

void Worker::waitEmpty() {
    const int64_t calledMs = KelpTime::getTimeMs();
    bool waiting = true;
    while (waiting) {
        KelpTime::sleepMs(kEmptyPollMs);
        std::lock_guard lock(tasksMutex_);
        Log::Debug(kTag, "%s, tasks_.size:%d\n", "waitEmpty", static_cast<int>(tasks_.size()));
        waiting = std::ranges::any_of(tasks_, [&](const Task& task) { return task.armedMs <= calledMs; });
    }
}

void Worker::close() {
    if (closed_.exchange(true)) {
        return;
    }
    timerRest_.end();
    {
        std::lock_guard lock(tasksMutex_);
        tasksCond_.notify_all();
    }
    join(thread_);
    // A callable or a timer's function may hold the last reference to something that calls back into this object when
    // it dies, so they are all destroyed with no lock held.
    std::vector<Task> dropped;
    {
        std::lock_guard lock(tasksMutex_);
        dropped.swap(tasks_);
    }
    dropped.clear();
    join(timerThread_);
    std::list<TimerInfo> timers;
    std::lock_guard lock(timerMutex_);
    nextTimerId_ = 1;
    freeTimerIds_.clear();
    timers.splice(timers.end(), timers_);
    timers.splice(timers.end(), newTimers_);
}

bool Worker::isOwnThread() const {
    return t_worker == this;
}

void Worker::run() {
    t_worker = this;
    SetThreadName(static_cast<unsigned long>(-1), kTag);
    if (closed_) {
        return;
    }
    do {
        std::vector<Task> batch;
        {
            std::unique_lock lock(tasksMutex_);
            Log::Debug(kTag, "Worker wait task, task.size:%d\n", static_cast<int>(tasks_.size()));
            if (!tasks_.empty()) {
                batch.swap(tasks_);
                Log::Debug(kTag, "Worker got tasks, size:%d\n", static_cast<int>(batch.size()));
            } else if (!closed_) {  // close may have sent its wake-up already
                tasksCond_.wait(lock);
            }
        }
        for (const auto& task : batch) {
            t_armedMs = task.armedMs;
            task.func();
        }
    } while (!closed_);
}

void Worker::timerRun() {
    t_worker = this;
    SetThreadName(static_cast<unsigned long>(-1), "WorkerTimer");
    while (!closed_) {
        if (const int64_t lookMs = lookMs_; KelpTime::getTimeMs() < lookMs) {
            timerRest_.untilMs(lookMs, [&] { return lookMs_ < lookMs || closed_; });
        } else {
            updateTimerTask();
        }
    }
}

void Worker::lookWithin(unsigned int ms) {
    if (const int64_t lookMs = KelpTime::getTimeMs() + ms; lookMs < lookMs_) {
        lookMs_ = lookMs;
        timerRest_.end();
    }
}

void Worker::updateTimerTask() {
    std::list<TimerInfo> erased;  // destroyed after the lock's release
    std::lock_guard lock(timerMutex_);
    int64_t lookMs = Rest::kNeverMs;
    const auto look = [&](const TimerInfo& timer) {
        lookMs = std::min(lookMs, timer.intervalMs + timer.lastShotTickMs);
    };
    for (auto it = timers_.begin(); it != timers_.end();) {
        const auto timer = it++;
        bool gone = timer->removed;
        if (!gone) {
            const int64_t nowMs = KelpTime::getTimeMs();
            if (nowMs >= timer->intervalMs + timer->lastShotTickMs) {
                queue({timer->func, timer->lastShotTickMs});
                timer->lastShotTickMs = nowMs;
                gone = timer->oneShot;
            }
        }
        if (gone) {
            freeTimerIds_.push_back(timer->id);
            erased.splice(erased.end(), timers_, timer);
        } else {
            look(*timer);
        }
    }
    std::ranges::for_each(newTimers_, look);
    timers_.splice(timers_.end(), newTimers_);
    lookMs_ = lookMs;
}

}  // namespace kelp
