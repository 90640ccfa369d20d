#include "command_thread.h"

#include <chrono>
#include <utility>

CommandThread::CommandThread(std::function<int()> onIdle) : onIdle_(std::move(onIdle)), thread_([this] { run(); }) {
}

CommandThread::~CommandThread() {
    {
        std::lock_guard lock(mutex_);
        ending_ = true;
    }
    wake_.notify_one();
    thread_.join();
}

void CommandThread::post(Command command) {
    postLatest(0, std::move(command));
}

void CommandThread::postLatest(int kind, Command command) {
    {
        std::lock_guard lock(mutex_);
        if (kind != 0 && !queue_.empty() && queue_.back().kind == kind) {
            queue_.back().command = std::move(command);
        } else {
            queue_.push_back({kind, std::move(command)});
        }
    }
    wake_.notify_one();
}

void CommandThread::run() {
    int idleMs = -1;
    std::unique_lock lock(mutex_);
    const auto hasWork = [this] { return ending_ || !queue_.empty(); };
    while (true) {
        if (idleMs < 0) {
            wake_.wait(lock, hasWork);
        } else if (!wake_.wait_for(lock, std::chrono::milliseconds(idleMs), hasWork)) {
            lock.unlock();
            idleMs = onIdle_();
            lock.lock();
            continue;
        }
        if (queue_.empty()) {
            return;
        }
        Command command = std::move(queue_.front().command);
        queue_.pop_front();
        lock.unlock();
        command();
        command = nullptr;
        idleMs = kIdleMs;
        lock.lock();
    }
}
