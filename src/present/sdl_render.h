#pragma once

#include <SDL.h>

#include <memory>
#include <mutex>

#include "present/render.h"

namespace kelp {

// Draws planar 4:2:0 pictures with SDL into a native window or an SDL window of the host.
//
// An upright picture fills the whole output, whatever its aspect ratio; one that is turned by 90 or 270 degrees keeps
// its aspect ratio and is centred. Every operation holds `mutex_` from start to end.
class SDLRender : public IRender {
public:
    SDLRender() = default;
    SDLRender(const SDLRender&) = delete;
    SDLRender& operator=(const SDLRender&) = delete;
    ~SDLRender() override;

    // On failure what was made so far stays until `close`.
    bool init(WindowType type, void* window, int width, int height, int fps) override;
    bool updateWindowSize(int width, int height) override;
    bool fillFrame(std::shared_ptr<VideoFrameInfo> frame) override;

    // Without a picture the window turns black. False if there is nothing to draw on, or if the picture can't be
    // drawn, as one of PIX_FMT_PACKET.
    bool refresh() override;

    // Leaves the window black. A window of the host stays.
    void close() override;

private:
    bool createRenderer();
    void followOutputSize();
    // Whether there is a picture to present.
    bool draw(const VideoFrameInfo& frame);
    bool prepareTexture(const VideoFrameInfo& frame);
    bool updateTexture(const VideoFrameInfo& frame);

    WindowType windowType_{};  // 0 before init
    SDL_Window* window_ = nullptr;
    int width_ = 640;  // of the renderer's output, in pixels
    int height_ = 480;
    SDL_Renderer* renderer_ = nullptr;
    SDL_Texture* texture_ = nullptr;  // lives as long as the output's size stays; belongs to renderer_
    int textureWidth_ = 0;            // in pixels
    int textureHeight_ = 0;
    std::shared_ptr<VideoFrameInfo> frame_;  // of the next refresh
    std::mutex mutex_;                       // guards all of the above
};

}  // namespace kelp
