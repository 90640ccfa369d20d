#pragma once

#include <cstdint>
#include <string>

// The one line on the terminal that says how far playback is. On a terminal it is written over, elsewhere a new one is
// written once a second, and whenever the position jumps or the status changes.
class ProgressLine {
public:
    ProgressLine();

    // Times in milliseconds. `figures` change all the time, `status` only with what the user does.
    void show(int64_t timeMs, int64_t durationMs, const std::string& figures, const std::string& status);

    // Leaves the line, so that what follows starts on one of its own.
    void finish();

private:
    bool terminal_;
    int64_t lastSecond_ = -1;  // of the last line written where there is no terminal
    int64_t lastTimeMs_ = 0;   // likewise
    std::string lastStatus_;   // likewise
    bool shown_ = false;
};

// Milliseconds as minutes and seconds, or hours, minutes and seconds.
std::string clockText(int64_t ms);
