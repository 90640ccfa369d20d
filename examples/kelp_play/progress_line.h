#pragma once

#include <cstdint>
#include <string>

// The one line on the terminal that says how far playback is. On a terminal it is written over, elsewhere a new one is
// written once a second.
class ProgressLine {
public:
    ProgressLine();

    // Times in milliseconds.
    void show(int64_t timeMs, int64_t durationMs, int framesPerSecond, int frames, bool paused);

    // The same with `counts` in place of what is said of the frames. The `last` one is shown in any case; a duration of
    // 0 isn't known.
    void show(int64_t timeMs, int64_t durationMs, const std::string& counts, bool last = false);

    // Leaves the line, so that what follows starts on one of its own.
    void finish();

private:
    bool terminal_;
    int64_t lastSecond_ = -1;  // of the last line written where there is no terminal
    bool shown_ = false;
};

// Milliseconds as minutes and seconds, or hours, minutes and seconds.
std::string clockText(int64_t ms);
