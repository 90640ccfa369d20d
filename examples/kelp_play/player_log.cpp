#include "player_log.h"

#include <cstdio>
#include <utility>

#include "kelp_player/log.h"

PlayerLog::~PlayerLog() {
    kelp::Log::SetLogCallback(nullptr);
}

void PlayerLog::install(bool shown) {
    shown_ = shown;
    kelp::Log::SetLogCallback([this](const char* line) { onLine(line); });
}

void PlayerLog::onLine(const char* line) {
    std::string text(line);
    const auto message = text.find("]: ");
    // The program asks for the time while the player is restarting a source, and is refused.
    if (text.find("[TarnPlayer]: get") != std::string::npos) {
        return;
    }
    if (shown_) {
        std::fputs(line, stderr);
    }
    if (text.find("(ERROR)") == std::string::npos) {
        return;
    }
    text = message == std::string::npos ? text : text.substr(message + 3);
    text.erase(text.find_last_not_of(" \r\n") + 1);
    std::lock_guard lock(mutex_);
    lastError_ = std::move(text);
}

std::string PlayerLog::reason() {
    std::lock_guard lock(mutex_);
    const auto code = lastError_.find(", ", lastError_.find("ret:"));
    const auto end = lastError_.find(", is stoped:");
    if (lastError_.find("ret:") == std::string::npos || code == std::string::npos || end == std::string::npos) {
        return lastError_;
    }
    return lastError_.substr(code + 2, end - code - 2);
}
