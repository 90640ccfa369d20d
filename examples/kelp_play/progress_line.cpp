#include "progress_line.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>

std::string clockText(int64_t ms) {
    const auto seconds = static_cast<long long>(std::max<int64_t>(ms, 0) / 1000);
    char text[32];
    if (seconds >= 3600) {
        std::snprintf(text, sizeof text, "%lld:%02lld:%02lld", seconds / 3600, seconds / 60 % 60, seconds % 60);
    } else {
        std::snprintf(text, sizeof text, "%02lld:%02lld", seconds / 60, seconds % 60);
    }
    return text;
}

ProgressLine::ProgressLine() : terminal_(isatty(STDOUT_FILENO) != 0) {
}

void ProgressLine::show(int64_t timeMs, int64_t durationMs, int framesPerSecond, int frames, bool paused) {
    char counts[64];
    std::snprintf(counts, sizeof counts, "%2d fps  %d frames%s", framesPerSecond, frames, paused ? "  paused" : "");
    show(timeMs, durationMs, counts);
}

void ProgressLine::show(int64_t timeMs, int64_t durationMs, const std::string& counts, bool last) {
    if (!terminal_) {
        using namespace std::chrono;
        const auto second = duration_cast<seconds>(steady_clock::now().time_since_epoch()).count();
        if (second == lastSecond_ && !last) {
            return;
        }
        lastSecond_ = second;
    }
    constexpr int kBar = 30;
    const int done = durationMs > 0 ? static_cast<int>(std::clamp<int64_t>(timeMs * kBar / durationMs, 0, kBar)) : 0;
    std::printf("%s[%s%s] %s / %s  %s", terminal_ ? "\r" : "", std::string(done, '#').c_str(),
                std::string(kBar - done, '.').c_str(), clockText(timeMs).c_str(), clockText(durationMs).c_str(),
                counts.c_str());
    std::fputs(terminal_ ? "\033[K" : "\n", stdout);
    std::fflush(stdout);
    shown_ = true;
}

void ProgressLine::finish() {
    if (terminal_ && shown_) {
        std::fputs("\n", stdout);
        std::fflush(stdout);
    }
    shown_ = false;
}
