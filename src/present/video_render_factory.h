#pragma once

#include <memory>

#include "kelp_player/types.h"

namespace kelp {

class IRender;

// Chooses the renderer for a kind of window handle.
class VideoRenderFactory {
public:
    VideoRenderFactory() = default;
    virtual ~VideoRenderFactory() = default;

    // Empty for a type that isn't known.
    static std::shared_ptr<IRender> create(WindowType type);
};

}  // namespace kelp
