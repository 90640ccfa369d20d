// usage: seek_stress [--seconds N] [--seed S]
//
// Seeks, pauses, resumes, changes of speed and stops at random over the files of the tests. Without a seed it takes one
// from the clock; it is printed, and the same one brings the same requests again.

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "stress/seek_stress.h"

int main(int argc, char** argv) {
    int seconds = 60;
    auto seed = static_cast<uint32_t>(std::time(nullptr)) * 2654435761U ^ static_cast<uint32_t>(getpid());
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--seconds") == 0) {
            seconds = std::atoi(argv[i + 1]);
        } else if (std::strcmp(argv[i], "--seed") == 0) {
            seed = static_cast<uint32_t>(std::strtoul(argv[i + 1], nullptr, 10));
        } else {
            std::fprintf(stderr, "usage: seek_stress [--seconds N] [--seed S]\n");
            return 2;
        }
    }
    // Before the first player; neither a screen nor a sound device is needed.
    setenv("SDL_VIDEODRIVER", "dummy", 0);
    setenv("SDL_AUDIODRIVER", "dummy", 0);
    std::printf("seek_stress --seconds %d --seed %u\n", seconds, seed);
    std::fflush(stdout);
    bool ok = false;
    {
        kelp::test::SeekStress stress(seed);
        ok = stress.run(seconds);
        if (!ok) {
            std::printf("to do it again: seek_stress --seconds %d --seed %u\n", seconds, seed);
        }
    }
    return ok ? 0 : 1;
}
