#include "present/sdl_thread_storage.h"

#include <SDL.h>

namespace kelp {

namespace {

struct ThreadStorage {
    ThreadStorage() = default;
    ThreadStorage(const ThreadStorage&) = delete;
    ThreadStorage& operator=(const ThreadStorage&) = delete;
    ~ThreadStorage() { SDL_TLSCleanup(); }
};

}  // namespace

void freeSdlStorageAtThreadEnd() {
    static thread_local const ThreadStorage storage;
}

}  // namespace kelp
