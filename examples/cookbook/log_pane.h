#pragma once

#include <memory>
#include <string>
#include <vector>

// Keeps the library's log for a pane of the host's.
class LogPane {
public:
    // Takes the log from the console, and gives it back.
    LogPane();
    ~LogPane();
    LogPane(const LogPane&) = delete;
    LogPane& operator=(const LogPane&) = delete;

    // The lines since the last call, for the thread that draws them.
    std::vector<std::string> takeLines();

    // What the last error line said, without its prefix: the reason to show with an onFailed.
    std::string lastError();

private:
    struct Lines;

    std::shared_ptr<Lines> kept_;
};
