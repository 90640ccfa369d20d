#include "player_log.h"

#include <cstdio>

#include "kelp_player/log.h"
#include "source_problem.h"

PlayerLog::~PlayerLog() {
    kelp::Log::SetLogCallback(nullptr);
}

void PlayerLog::install(bool shown) {
    shown_ = shown;
    kelp::Log::SetLogCallback([this](const char* line) { onLine(line); });
}

void PlayerLog::onLine(const char* line) {
    std::string text(line);
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
    std::lock_guard lock(mutex_);
    lastError_ = messageOf(text);
}

std::string PlayerLog::reason() {
    std::lock_guard lock(mutex_);
    return reasonIn(lastError_);
}
