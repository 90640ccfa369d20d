#pragma once

#include <functional>
#include <mutex>
#include <vector>

#include "kelp_player/types.h"

namespace kelp {

// The windows that the host wants pictures in, from playback to playback. Any thread.
class HostWindows {
public:
    struct Window {
        WindowType type;
        void* handle;  // the key of the list
        int width;     // in pixels
        int height;    // in pixels
    };

    // Of one that is known this is the new size alone.
    void add(const Window& window);
    void remove(void* handle);
    void resize(void* handle, int width, int height);
    // Shows all of them to `show`, and lets changes wait meanwhile.
    void forEach(const std::function<void(const Window&)>& show);

private:
    std::mutex mutex_;
    std::vector<Window> windows_;  // guarded by mutex_
};

}  // namespace kelp
