#include "stress/sound_devices.h"

#include <SDL.h>
#include <dlfcn.h>

#include <atomic>

namespace {

std::atomic<bool> g_away{false};

template <class Function>
Function* libraryFunction(Function*, const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// In the library's place: a program's functions go before those of the libraries that it is linked with.
extern "C" {

SDL_AudioDeviceID SDL_OpenAudioDevice(const char* device, int isCapture, const SDL_AudioSpec* wanted,
                                      SDL_AudioSpec* obtained, int allowedChanges) {
    static auto* const real = libraryFunction(&SDL_OpenAudioDevice, "SDL_OpenAudioDevice");
    if (g_away) {
        SDL_SetError("no device");
        return 0;
    }
    return real(device, isCapture, wanted, obtained, allowedChanges);
}

SDL_AudioStatus SDL_GetAudioDeviceStatus(SDL_AudioDeviceID device) {
    static auto* const real = libraryFunction(&SDL_GetAudioDeviceStatus, "SDL_GetAudioDeviceStatus");
    return g_away ? SDL_AUDIO_STOPPED : real(device);
}
}

namespace kelp::test {

void takeSoundDevices(bool away) {
    g_away = away;
}

}  // namespace kelp::test
