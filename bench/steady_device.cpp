#include "steady_device.h"

#include <SDL.h>
#include <dlfcn.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <stop_token>
#include <thread>
#include <vector>

namespace {

constexpr SDL_AudioDeviceID kId = 1000;  // above SDL's own

// The device, of which there is one.
class Device {
public:
    explicit Device(const SDL_AudioSpec& spec) : spec_(spec), block_(spec.size) {}

    void pause(bool paused) {
        std::lock_guard lock(mutex_);
        if (!paused && !thread_.joinable()) {
            thread_ = std::jthread([this](const std::stop_token& stop) { run(stop); });
        }
        paused_ = paused;
    }

private:
    // SDL's pause waits for a callback that runs.
    void run(const std::stop_token& stop) {
        const std::chrono::duration<double> length(static_cast<double>(spec_.samples) / spec_.freq);
        const auto begin = std::chrono::steady_clock::now();
        std::unique_lock lock(mutex_);
        for (int64_t blocks = 0; !stop.stop_requested(); ++blocks) {
            if (!paused_) {
                spec_.callback(spec_.userdata, block_.data(), static_cast<int>(block_.size()));
            }
            const auto next = begin + std::chrono::duration_cast<std::chrono::nanoseconds>(length * (blocks + 1));
            end_.wait_until(lock, stop, next, [] { return false; });
        }
    }

    const SDL_AudioSpec spec_;
    std::vector<Uint8> block_;
    std::mutex mutex_;
    std::condition_variable_any end_;
    bool paused_ = true;   // guarded by mutex_
    std::jthread thread_;  // ends before all else
};

bool g_isUsed = false;
std::unique_ptr<Device> g_device;

template <class Function>
Function* theirs(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

namespace kelp::bench {

void useSteadyDevice() {
    g_isUsed = true;
}

}  // namespace kelp::bench

// In place of SDL's, for the player's library too.
extern "C" {

SDL_AudioDeviceID SDL_OpenAudioDevice(const char* name, int capture, const SDL_AudioSpec* wanted,
                                      SDL_AudioSpec* obtained, int changes) {
    if (!g_isUsed) {
        return theirs<decltype(SDL_OpenAudioDevice)>(__func__)(name, capture, wanted, obtained, changes);
    }
    *obtained = *wanted;
    obtained->silence = 0;
    obtained->size = static_cast<Uint32>(wanted->samples * wanted->channels * SDL_AUDIO_BITSIZE(wanted->format) / 8);
    g_device = std::make_unique<Device>(*obtained);
    return kId;
}

void SDL_PauseAudioDevice(SDL_AudioDeviceID id, int paused) {
    if (id != kId) {
        theirs<decltype(SDL_PauseAudioDevice)>(__func__)(id, paused);
    } else if (g_device) {
        g_device->pause(paused != 0);
    }
}

SDL_AudioStatus SDL_GetAudioDeviceStatus(SDL_AudioDeviceID id) {
    return id == kId ? SDL_AUDIO_PLAYING : theirs<decltype(SDL_GetAudioDeviceStatus)>(__func__)(id);
}

void SDL_CloseAudioDevice(SDL_AudioDeviceID id) {
    if (id != kId) {
        theirs<decltype(SDL_CloseAudioDevice)>(__func__)(id);
    } else {
        g_device.reset();
    }
}

}  // extern "C"
