#pragma once

#include <functional>
#include <mutex>
#include <vector>

#include "kelp_player/types.h"

namespace kelp {

// The windows that the host wants pictures in, from playback to playback. Any thread.
class HostWindows {
public:
    struct WindowInfo {
        WindowType type;
        void* handle;  // the key of the list
        int width;     // in pixels
        int height;    // in pixels
    };

    // Of one that is known this is the new size alone.
    void add(const WindowInfo& window);
    void remove(void* handle);
    void resize(void* handle, int width, int height);
    // Shows all of them to `show`, and lets changes wait meanwhile.
    void forEach(const std::function<void(const WindowInfo&)>& show);

private:
    std::mutex windowMutex_;
    std::vector<WindowInfo> windowInfos_;  // guarded by windowMutex_
};

}  // namespace kelp
