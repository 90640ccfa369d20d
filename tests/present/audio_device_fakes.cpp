#include <mutex>

#include "present/audio_device_fixture.h"
#include "runtime/cycle_buffer_wrapper.h"

namespace kelp::test {

AudioDeviceFakes& audioDevice() {
    static AudioDeviceFakes fakes;
    return fakes;
}

}  // namespace kelp::test

using kelp::test::audioDevice;

static void note(const std::string& call) {
    static std::mutex mutex;
    std::lock_guard lock(mutex);
    audioDevice().calls.push_back(call);
}

extern "C" {

SDL_AudioDeviceID __real_SDL_OpenAudioDevice(const char* name, int capture, const SDL_AudioSpec* wanted,
                                             SDL_AudioSpec* obtained, int allowedChanges);
void __real_SDL_PauseAudioDevice(SDL_AudioDeviceID device, int pause);
void __real_SDL_CloseAudioDevice(SDL_AudioDeviceID device);
SDL_AudioStatus __real_SDL_GetAudioDeviceStatus(SDL_AudioDeviceID device);

SDL_AudioDeviceID __wrap_SDL_OpenAudioDevice(const char* name, int capture, const SDL_AudioSpec* wanted,
                                             SDL_AudioSpec* obtained, int allowedChanges) {
    audioDevice().wanted = *wanted;
    note(std::string("open ") + (name ? name : "default") + " " + std::to_string(capture) + " " +
         std::to_string(allowedChanges));
    if (audioDevice().real) {
        return __real_SDL_OpenAudioDevice(name, capture, wanted, obtained, allowedChanges);
    }
    *obtained = *wanted;
    if (audioDevice().obtain) {
        audioDevice().obtain(obtained);
    }
    if (audioDevice().device == 0 || (name && name == audioDevice().missing)) {
        SDL_SetError("no such thing");
        return 0;
    }
    return audioDevice().device;
}

void __wrap_SDL_PauseAudioDevice(SDL_AudioDeviceID device, int pause) {
    note("pause " + std::to_string(device) + " " + std::to_string(pause));
    if (audioDevice().real) {
        __real_SDL_PauseAudioDevice(device, pause);
    }
}

void __wrap_SDL_CloseAudioDevice(SDL_AudioDeviceID device) {
    note("close " + std::to_string(device));
    if (audioDevice().real) {
        __real_SDL_CloseAudioDevice(device);
    }
}

SDL_AudioStatus __wrap_SDL_GetAudioDeviceStatus(SDL_AudioDeviceID device) {
    return audioDevice().real ? __real_SDL_GetAudioDeviceStatus(device) : audioDevice().status;
}

// CycleBufferWrapper::reset() and abort(bool).
int __real__ZN4kelp18CycleBufferWrapper5resetEv(kelp::CycleBufferWrapper* ring);
void __real__ZN4kelp18CycleBufferWrapper5abortEb(kelp::CycleBufferWrapper* ring, bool abort);

int __wrap__ZN4kelp18CycleBufferWrapper5resetEv(kelp::CycleBufferWrapper* ring) {
    if (audioDevice().onRingReset) {
        audioDevice().onRingReset();
    }
    return __real__ZN4kelp18CycleBufferWrapper5resetEv(ring);
}

void __wrap__ZN4kelp18CycleBufferWrapper5abortEb(kelp::CycleBufferWrapper* ring, bool abort) {
    if (audioDevice().onRingAbort) {
        audioDevice().onRingAbort();
    }
    __real__ZN4kelp18CycleBufferWrapper5abortEb(ring, abort);
}

}  // extern "C"
