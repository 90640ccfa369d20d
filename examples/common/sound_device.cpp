#include "common/sound_device.h"

#include <SDL.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>

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

// Whether a sound device can be opened. A sound system without one complains at length.
bool hasSoundDevice() {
    const QuietStandardError quiet;
    if (SDL_InitSubSystem(SDL_INIT_AUDIO) != 0) {
        return false;
    }
    SDL_AudioSpec wanted{};
    wanted.freq = 48000;
    wanted.format = AUDIO_S16LSB;
    wanted.channels = 2;
    wanted.samples = 1024;
    const SDL_AudioDeviceID device = SDL_OpenAudioDevice(nullptr, 0, &wanted, nullptr, SDL_AUDIO_ALLOW_ANY_CHANGE);
    if (device != 0) {
        SDL_CloseAudioDevice(device);
    }
    SDL_QuitSubSystem(SDL_INIT_AUDIO);
    return device != 0;
}

}  // namespace

bool chooseSoundDriver() {
    if (hasSoundDevice()) {
        return true;
    }
    setenv("SDL_AUDIODRIVER", "dummy", 1);
    return false;
}
