#pragma once

#include <mutex>
#include <string>

// The engine's log: its error lines are the reason that a failure doesn't carry, and all lines go to standard error if
// the user wants them.
class PlayerLog {
public:
    PlayerLog() = default;
    ~PlayerLog();
    PlayerLog(const PlayerLog&) = delete;
    PlayerLog& operator=(const PlayerLog&) = delete;

    // Takes the lines from now on, and shows them with `shown`.
    void install(bool shown);

    // The library's own words in the last error line, or the line as it is; empty if there was none.
    std::string reason();

private:
    void onLine(const char* line);

    bool shown_ = false;
    std::mutex mutex_;
    std::string lastError_;  // guarded by mutex_
};
