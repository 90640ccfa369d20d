#include "playtask/host_windows.h"

#include <algorithm>

namespace kelp {

void HostWindows::add(const Window& window) {
    std::lock_guard lock(mutex_);
    const auto known = std::ranges::find(windows_, window.handle, &Window::handle);
    if (known == windows_.end()) {
        windows_.push_back(window);
        return;
    }
    known->width = window.width;
    known->height = window.height;
}

void HostWindows::remove(void* handle) {
    std::lock_guard lock(mutex_);
    std::erase_if(windows_, [handle](const Window& window) { return window.handle == handle; });
}

void HostWindows::resize(void* handle, int width, int height) {
    std::lock_guard lock(mutex_);
    const auto known = std::ranges::find(windows_, handle, &Window::handle);
    if (known != windows_.end()) {
        known->width = width;
        known->height = height;
    }
}

void HostWindows::forEach(const std::function<void(const Window&)>& show) {
    std::lock_guard lock(mutex_);
    std::ranges::for_each(windows_, show);
}

}  // namespace kelp
