#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "e2e/numbered.h"
#include "e2e/playback.h"

namespace kelp::test {

// A numbered file for exact seeks: its pictures' numbers count at this rate from its first one on.
struct ExactFile {
    const char* name;
    double rate;  // pictures a second
};

// Seeks in one file with the option "seek" = "exact", and what they show beside what the file's packets say.
class ExactSeeks {
public:
    explicit ExactSeeks(const ExactFile& file);

    KelpPlayer& player() { return playback_.player(); }
    bool open();
    // Opens and plays, and waits for the first picture.
    bool start();

    // Seeks, and waits for the event and the picture. What was wrong about it; empty if nothing was.
    std::string seekTo(int target);
    // The same of the last of many seeks, which may wait for others. `framesBefore`: when it was asked for.
    std::string expectLast(int target, int framesBefore);

    // A place in the file: any, at the edge of a picture, or not far behind the one shown, so that all ways are gone.
    int target(std::mt19937& random);

    int events() { return playback_.count(Happened::FirstVideoFrame); }
    int frames() { return sink_.frameCount(); }

private:
    // The time of the picture that holds `target`.
    int64_t holderOf(int target);
    std::string expectDrawn(int target, int framesBefore);

    const ExactFile file_;
    std::vector<int64_t> times_;  // of the pictures in milliseconds, in the order of showing
    int durationMs_ = 0;
    NumberSink sink_;
    Playback playback_;
};

}  // namespace kelp::test
