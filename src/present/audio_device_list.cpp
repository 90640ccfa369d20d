#include "present/audio_device_list.h"

#include <SDL.h>

#include <mutex>

#include "present/sdl_thread_storage.h"

namespace kelp {

std::vector<std::string> audioDeviceNames() {
    // A name is SDL's until somebody counts the devices again.
    static std::mutex mutex;
    std::lock_guard lock(mutex);
    freeSdlStorageAtThreadEnd();
    std::vector<std::string> names;
    const int count = SDL_GetNumAudioDevices(/*iscapture=*/0);
    for (int i = 0; i < count; ++i) {
        if (const char* const name = SDL_GetAudioDeviceName(i, /*iscapture=*/0)) {
            names.emplace_back(name);
        }
    }
    return names;
}

}  // namespace kelp
