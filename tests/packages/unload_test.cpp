#include <dlfcn.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <new>
#include <thread>

#include "kelp_player/kelp_player.h"

// A host that loads the library by itself, as a plug-in's host does, and lets go of it while the callable that dropped
// its last player still runs. Argument: the library.

namespace {

template <class Function>
Function* symbol(void* library, const char* name) {
    void* const found = dlsym(library, name);
    if (!found) {
        std::fprintf(stderr, "no symbol %s\n", name);
        std::exit(1);
    }
    return reinterpret_cast<Function*>(found);
}

}  // namespace

int main(int, char** argv) {
    using kelp::KelpPlayer;
    setenv("SDL_VIDEODRIVER", "dummy", 1);
    setenv("SDL_AUDIODRIVER", "dummy", 1);
    void* const library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (!library) {
        std::fprintf(stderr, "%s\n", dlerror());
        return 1;
    }
    const auto construct = symbol<void(void*)>(library, "_ZN4kelp10KelpPlayerC1Ev");
    const auto destroy = symbol<void(void*)>(library, "_ZN4kelp10KelpPlayerD1Ev");
    const auto init = symbol<bool(KelpPlayer*, kelp::KelpPlayerObserver*)>(
        library, "_ZN4kelp10KelpPlayer4initEPNS_18KelpPlayerObserverE");
    const auto runInWorker = symbol<void(KelpPlayer*, std::function<void()>)>(
        library, "_ZN4kelp10KelpPlayer11runInWorkerESt8functionIFvvEE");

    std::atomic<bool> dropped{false};
    std::atomic<bool> through{false};
    {
        void* const memory = ::operator new(sizeof(KelpPlayer));
        construct(memory);
        std::shared_ptr<KelpPlayer> player(static_cast<KelpPlayer*>(memory), [destroy](KelpPlayer* dead) {
            destroy(dead);
            ::operator delete(dead);
        });
        if (!init(player.get(), nullptr)) {
            std::fprintf(stderr, "no player\n");
            return 1;
        }
        auto* const raw = player.get();
        runInWorker(raw, [&, last = std::move(player)]() mutable {
            last.reset();
            dropped = true;
            std::this_thread::sleep_for(std::chrono::milliseconds(1300));  // longer than an exit waits
            through = true;
        });
    }
    while (!dropped) {
        std::this_thread::yield();
    }
    dlclose(library);
    while (!through) {
        std::this_thread::yield();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(200));  // for the worker's end
    std::puts("unloaded, and the worker ended");
    return 0;
}
