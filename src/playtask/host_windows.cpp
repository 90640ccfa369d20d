#include "playtask/host_windows.h"

#include <algorithm>

namespace kelp {

void HostWindows::add(const WindowInfo& window) {
    std::lock_guard lock(windowMutex_);
    const auto known = std::ranges::find(windowInfos_, window.handle, &WindowInfo::handle);
    if (known == windowInfos_.end()) {
        windowInfos_.push_back(window);
        return;
    }
    known->width = window.width;
    known->height = window.height;
}

void HostWindows::remove(void* handle) {
    std::lock_guard lock(windowMutex_);
    std::erase_if(windowInfos_, [handle](const WindowInfo& window) { return window.handle == handle; });
}

void HostWindows::resize(void* handle, int width, int height) {
    std::lock_guard lock(windowMutex_);
    const auto known = std::ranges::find(windowInfos_, handle, &WindowInfo::handle);
    if (known != windowInfos_.end()) {
        known->width = width;
        known->height = height;
    }
}

void HostWindows::forEach(const std::function<void(const WindowInfo&)>& show) {
    std::lock_guard lock(windowMutex_);
    std::ranges::for_each(windowInfos_, show);
}

}  // namespace kelp
