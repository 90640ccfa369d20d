#include "present/window_list.h"

#include <algorithm>
#include <limits>

#include "kelp_player/log.h"
#include "present/render.h"
#include "present/video_render_factory.h"

namespace kelp {

constexpr char kTag[] = "VideoPlayThread";

void WindowList::add(WindowType type, void* window, int width, int height) {
    std::lock_guard lock(windowMutex_);
    Log::Debug(kTag, "%s, window info size:%d, window:%p\n", "addWindow", count(), window);
    if (WindowInfo* known = find(window)) {
        known->newWidth = width;
        known->newHeight = height;
        known->removed = false;
        known->wantsDrawing = true;
        return;
    }
    windowInfos_.push_back({type, window, width, height, width, height, /*removed=*/false, /*paused=*/false,
                            /*wantsDrawing=*/true, PictureFit::Fill, nullptr});
}

void WindowList::remove(void* window) {
    std::lock_guard lock(windowMutex_);
    Log::Debug(kTag, "%s, window info size:%d, window:%p\n", "removeWindow", count(), window);
    if (WindowInfo* known = find(window)) {
        known->removed = true;
    }
}

void WindowList::pause(void* window, bool paused) {
    std::lock_guard lock(windowMutex_);
    Log::Debug(kTag, "%s, window info size:%d, window:%p, pause:%d\n", "pauseWindow", count(), window, paused);
    if (WindowInfo* known = find(window)) {
        known->paused = paused;
        known->wantsDrawing = true;
    }
}

void WindowList::resize(void* window, int width, int height) {
    std::lock_guard lock(windowMutex_);
    Log::Debug(kTag, "%s, window info size:%d\n", "updateWindowSize", count());
    if (WindowInfo* known = find(window)) {
        known->newWidth = width;
        known->newHeight = height;
        known->wantsDrawing = true;
    }
}

void WindowList::setFit(PictureFit fit) {
    std::lock_guard lock(windowMutex_);
    fit_ = fit;
}

int WindowList::draw(const std::shared_ptr<VideoFrameInfo>& frame, int fps) {
    {
        std::lock_guard lock(windowMutex_);
        closeRemoved();
        collectDrawings();
    }
    int keptMs = std::numeric_limits<int>::max();
    // Without the lock, so that slow drawing holds nobody up.
    for (const auto& [window, created, fit] : drawings_) {
        if (isStopped_()) {
            break;
        }
        if (created) {
            window.render->init(window.type, window.handle, window.width, window.height, fps);
            window.render->setSubtitles(subtitles_);
        }
        const bool resized = window.width != window.newWidth || window.height != window.newHeight;
        if (resized && window.newWidth > 0 && window.newHeight > 0) {
            window.render->updateWindowSize(window.newWidth, window.newHeight);
        }
        if (window.fit != fit) {
            window.render->setFit(fit);
        }
        if (window.paused) {
            continue;
        }
        int keepsForMs = window.wantsDrawing ? 0 : window.render->keepsForMs(frame);
        if (keepsForMs == 0) {
            if (frame) {
                window.render->fillFrame(frame);
            }
            window.render->refresh();
            keepsForMs = window.render->keepsForMs(frame);
        }
        keptMs = std::min(keptMs, keepsForMs);
    }
    drawings_.clear();
    return keptMs;
}

void WindowList::closeAll(Leaving leaving) {
    std::lock_guard lock(windowMutex_);
    Log::Debug(kTag, "%s, window info size:%d\n", "onExit", count());
    for (const auto& window : windowInfos_) {
        if (window.render) {
            leaving == Leaving::Picture ? window.render->leave() : window.render->close();
        }
    }
    windowInfos_.clear();
}

// A handle is in the list once at most.
WindowList::WindowInfo* WindowList::find(const void* handle) {
    const auto found = std::ranges::find(windowInfos_, handle, &WindowInfo::handle);
    return found == windowInfos_.end() ? nullptr : &*found;
}

void WindowList::closeRemoved() {
    for (auto window = windowInfos_.begin(); window != windowInfos_.end();) {
        if (!window->removed) {
            ++window;
            continue;
        }
        Log::Debug(kTag, "%s, window info size:%d, remove %p\n", "renderFrame", count(), window->handle);
        if (window->render) {
            window->render->close();
        }
        window = windowInfos_.erase(window);
    }
}

void WindowList::collectDrawings() {
    for (auto& window : windowInfos_) {
        const bool created = window.handle && !window.render;
        if (created) {
            Log::Debug(kTag, "%s, window info size:%d, add %p\n", "renderFrame", count(), window.handle);
            window.render = VideoRenderFactory::create(window.type);
        }
        if (!window.render) {
            continue;  // of an unknown type, or without a handle
        }
        drawings_.push_back({window, created, fit_});
        window.width = window.newWidth;
        window.height = window.newHeight;
        window.wantsDrawing = false;
        window.fit = fit_;
    }
}

}  // namespace kelp
