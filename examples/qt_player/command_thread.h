#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

// Carries out commands one after the other on a thread of its own, so that whoever gives them never waits.
//
// `post` and `postLatest` may be called from any thread.
class CommandThread {
public:
    using Command = std::function<void()>;

    // `onIdle` is called on the thread while there is nothing to do: first kIdleMs after a command, then again after as
    // many milliseconds as it returned, or, if that was below 0, not before the next command.
    explicit CommandThread(std::function<int()> onIdle);
    // Carries out what is queued, then ends the thread.
    ~CommandThread();
    CommandThread(const CommandThread&) = delete;
    CommandThread& operator=(const CommandThread&) = delete;

    void post(Command command);
    // For commands of which only the last one matters: takes the place of the last command queued if that has the same
    // `kind` (1 and up) and wasn't begun.
    void postLatest(int kind, Command command);

private:
    static constexpr int kIdleMs = 40;

    struct Entry {
        int kind;  // 0 for none
        Command command;
    };

    void run();

    const std::function<int()> onIdle_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<Entry> queue_;  // guarded by mutex_
    bool ending_ = false;      // guarded by mutex_
    std::thread thread_;
};
