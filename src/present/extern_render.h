#pragma once

#include <memory>
#include <mutex>

#include "present/render.h"

namespace kelp {

class ExternFrameSink;

// Hands every picture to an object of the host instead of drawing it. The host's object is called with `mutex_` held;
// one that blocks holds up the thread that draws.
class ExternRender : public IRender {
public:
    // False, and no sink, for any type but WINDOW_TYPE_EXTERN. The size isn't looked at.
    bool init(WindowType type, void* window, int width, int height, int fps) override;
    bool updateWindowSize(int width, int height) override;

    // Tells the sink the size of the picture if it isn't that of the one before.
    bool fillFrame(std::shared_ptr<VideoFrameInfo> frame) override;

    // The sink's answer; false without a sink or a picture.
    bool refresh() override;
    void close() override;

private:
    ExternFrameSink* sink_ = nullptr;  // the host's; not owned
    int fps_ = 0;
    std::shared_ptr<VideoFrameInfo> frame_;  // of the next refresh
    int lastWidth_ = -1;                     // size last reported to the sink, in pixels; -1 before the first
    int lastHeight_ = -1;
    std::mutex mutex_;  // guards all of the above
};

}  // namespace kelp
