#include "present/video_render_factory.h"

#include "present/extern_render.h"
#include "present/sdl_render.h"

namespace kelp {

std::shared_ptr<IRender> VideoRenderFactory::create(WindowType type) {
    switch (type) {
        case WINDOW_TYPE_QT_WINID:
        case WINDOW_TYPE_SDL:
            return std::make_shared<SDLRender>();
        case WINDOW_TYPE_EXTERN:
            return std::make_shared<ExternRender>();
    }
    return nullptr;
}

}  // namespace kelp
