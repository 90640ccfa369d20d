#include "log_pane.h"

#include <mutex>
#include <utility>

#include "kelp_player/log.h"

// [callback]
struct LogPane::Lines {
    // On whatever thread logs, one line at a time: no player is called here, and nothing is logged.
    void add(const char* text);

    std::mutex mutex;
    std::vector<std::string> lines;  // guarded by mutex
    std::string lastError;           // guarded by mutex
};

// The callback owns what it uses: another thread may still be in it when the pane is gone.
LogPane::LogPane() : kept_(std::make_shared<Lines>()) {
    kelp::Log::SetLogCallback([kept = kept_](const char* text) { kept->add(text); });
}

LogPane::~LogPane() {
    kelp::Log::SetLogCallback(nullptr);
}

void LogPane::Lines::add(const char* text) {
    std::string line(text);
    line.erase(line.find_last_not_of("\r\n") + 1);
    const auto message = line.find("]: ");  // behind the date, the thread, the level and the tag
    std::lock_guard lock(mutex);
    if (line.find("(ERROR)") != std::string::npos && message != std::string::npos) {
        lastError = line.substr(message + 3);
    }
    lines.push_back(std::move(line));
}
// [/callback]

std::vector<std::string> LogPane::takeLines() {
    std::lock_guard lock(kept_->mutex);
    return std::exchange(kept_->lines, {});
}

std::string LogPane::lastError() {
    std::lock_guard lock(kept_->mutex);
    return kept_->lastError;
}
