#pragma once

#include <string>
#include <vector>

#include "settings.h"

namespace kelp::bench {

// A test picture that moves, as H.264 with B-frames and a key frame every two seconds, and a tone as AAC. A heavy one
// has noise in it and takes 5 Mbit/s.
struct Clip {
    int width = 640;
    int height = 360;
    std::string fps = "30";  // as the ffmpeg command reads it, also as a fraction
    int seconds = 20;
    bool hasSound = true;
    bool isHeavy = false;
};

// The path of the clip, which the ffmpeg command makes unless it is there already; empty if that fails.
std::string clipPath(const Settings& settings, const Clip& clip);

// The same by another encoder of the ffmpeg command, `encoder` with its options. Size, rate and length count alone.
std::string encodedPath(const Settings& settings, const Clip& clip, const std::string& encoder);

// Black, 25 pictures per second, with a flash and a beep at every whole period that the film is old. The first of ten
// is left out: what is off by whole periods shows. In the last half second there is none, as a player's end may cut its
// beep.
struct Flashing {
    int seconds = 10;
    int periodMs = 1000;
    int lengthMs = 80;
};
std::string flashesPath(const Settings& settings, const Flashing& flashing);

// What `cost`, `latency` and `steps` play: the file of the command line, or a light clip, 1080p.
std::string everydayPath(const Settings& settings);

// Another film for `latency` and `steps`: a heavy clip, unless the command line names a file or only a smoke test is
// wanted.
std::string heavyPath(const Settings& settings);

// Both, or the one that there is, with their names in the tables.
struct NamedClip {
    std::string name;
    std::string path;
};
std::vector<NamedClip> latencyClips(const Settings& settings);

// The same film without its sound.
std::string silentPath(const Settings& settings, const std::string& path);

}  // namespace kelp::bench
