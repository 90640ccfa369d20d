#pragma once

#include <atomic>
#include <functional>
#include <string>

namespace kelp::bench {

class PictureWindow;

// What a bare loop does with a file.
struct BareLoop {
    double speed = 1;                 // of the film's own; 0: as fast as it goes
    double seconds = 0;               // of the film; 0: all
    PictureWindow* window = nullptr;  // draws each picture, if there is one
    bool copies = true;               // each picture into one block; a window needs it
    // Told of each picture: how many milliseconds it is late. May be empty.
    std::function<void(double lateMs)> onPicture;
    const std::atomic<bool>* stop = nullptr;  // ends the loop early
};

// Reads, decodes and copies each picture once, unless told not to, at its time: what playing needs at least. Returns
// the seconds of film that were shown; 0 if it fails.
double runBareLoop(const std::string& path, const BareLoop& loop);

}  // namespace kelp::bench
