#include "log_pane.h"

#include <utility>

#include "kelp_player/log.h"

// [callback]
LogPane::LogPane() {
    kelp::Log::SetLogCallback([this](const char* text) { onLine(text); });
}

LogPane::~LogPane() {
    kelp::Log::SetLogCallback(nullptr);
}

// On whatever thread logs, one line at a time: no player is called here, and nothing is logged.
void LogPane::onLine(const char* text) {
    std::string line(text);
    line.erase(line.find_last_not_of("\r\n") + 1);
    const auto message = line.find("]: ");  // behind the date, the thread, the level and the tag
    std::lock_guard lock(mutex_);
    if (line.find("(ERROR)") != std::string::npos && message != std::string::npos) {
        lastError_ = line.substr(message + 3);
    }
    lines_.push_back(std::move(line));
}
// [/callback]

std::vector<std::string> LogPane::takeLines() {
    std::lock_guard lock(mutex_);
    return std::exchange(lines_, {});
}

std::string LogPane::lastError() {
    std::lock_guard lock(mutex_);
    return lastError_;
}
