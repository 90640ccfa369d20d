#include "machine.h"

#include <SDL.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

#include "sound_drain.h"

namespace {

// Keeps off the terminal what a library writes to standard error by itself.
class QuietStandardError {
public:
    QuietStandardError() : saved_(dup(STDERR_FILENO)) {
        const int nowhere = open("/dev/null", O_WRONLY);
        dup2(nowhere, STDERR_FILENO);
        close(nowhere);
    }
    ~QuietStandardError() {
        dup2(saved_, STDERR_FILENO);
        close(saved_);
    }
    QuietStandardError(const QuietStandardError&) = delete;
    QuietStandardError& operator=(const QuietStandardError&) = delete;

private:
    int saved_;
};

// Whether so many sound devices can be opened. A sound system without any complains at length.
bool hasSoundDevices(int count) {
    const QuietStandardError quiet;
    if (SDL_InitSubSystem(SDL_INIT_AUDIO) != 0) {
        return false;
    }
    SDL_AudioSpec wanted{};
    wanted.freq = 48000;
    wanted.format = AUDIO_S16LSB;
    wanted.channels = 2;
    wanted.samples = 1024;
    std::vector<SDL_AudioDeviceID> devices;
    for (int i = 0; i < count; ++i) {
        devices.push_back(SDL_OpenAudioDevice(nullptr, 0, &wanted, nullptr, SDL_AUDIO_ALLOW_ANY_CHANGE));
    }
    bool all = true;
    for (const SDL_AudioDeviceID device : devices) {
        all = all && device != 0;
        SDL_CloseAudioDevice(device);
    }
    SDL_QuitSubSystem(SDL_INIT_AUDIO);
    return all;
}

// SDL's dummy is one device only; its writer of files is as many as one likes.
void playInSilence(int soundDevices) {
    if (soundDevices == 1) {
        setenv("SDL_AUDIODRIVER", "dummy", 1);
        return;
    }
    setenv("SDL_AUDIODRIVER", "disk", 1);
    setenv("SDL_DISKAUDIOFILE", soundDrain().c_str(), 1);
    SDL_LogSetPriority(SDL_LOG_CATEGORY_AUDIO, SDL_NUM_LOG_PRIORITIES);  // it warns of itself
}

}  // namespace

bool chooseSoundDriver(int soundDevices) {
    if (hasSoundDevices(soundDevices)) {
        return true;
    }
    playInSilence(soundDevices);
    return false;
}

bool chooseDrivers(const char* program, bool windowsWanted, int soundDevices) {
    const bool windows = windowsWanted && SDL_InitSubSystem(SDL_INIT_VIDEO) == 0;
    if (!windows) {
        setenv("SDL_VIDEODRIVER", "dummy", 1);
    }
    if (!chooseSoundDriver(soundDevices)) {
        std::fprintf(stderr, "%s: no sound device, playing in silence\n", program);
    }
    return windows;
}
