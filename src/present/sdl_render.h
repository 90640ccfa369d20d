#pragma once

#include <SDL.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

#include "present/render.h"
#include "present/subtitle_layer.h"

namespace kelp {

// Draws planar 4:2:0 pictures with SDL into a native window or an SDL window of the host.
//
// With PictureFit::Fill an upright picture fills the whole output, whatever its aspect ratio, and one that is turned by
// 90 or 270 degrees keeps that of its size and is centred; a texture stays when pictures of another size come. With
// Keep each picture lies in its FittedRectangle, in a texture of its size. Every operation holds `mutex_` from start to
// end.
class SDLRender : public IRender {
public:
    ~SDLRender() override;

    // On failure what was made so far stays until `close`.
    bool init(WindowType type, void* window, int width, int height, int fps) override;
    void setSubtitles(const std::shared_ptr<SubtitleScreen>& subtitles) override;
    bool updateWindowSize(int width, int height) override;
    void setFit(PictureFit fit) override;
    // Not more than 100 ms from the last drawing, since nobody tells when a window was covered.
    int keepsForMs(const std::shared_ptr<VideoFrameInfo>& frame) override;
    bool fillFrame(std::shared_ptr<VideoFrameInfo> frame) override;

    // Without a picture the window turns black. False if there is nothing to draw on, or if the picture can't be
    // drawn, as one of PIX_FMT_PACKET.
    bool refresh() override;

    // Leaves the window black. A window of the host stays.
    void close() override;
    void leave() override;

private:
    void freeAll();
    // Whether it is frame_, and the picture of then: blanking it lowers its time.
    bool isKnown(const VideoFrameInfo& frame) const { return &frame == frame_.get() && frame.pts == framePts_; }
    bool createRenderer();
    std::pair<int, int> outputSize();
    void followOutputSize();
    // What the subtitles go with.
    SubtitleLayer::Picture subtitlePicture() const;
    // Whether there is a picture to present.
    bool draw(const VideoFrameInfo& frame);
    // Where the picture goes before SDL turns it about its centre; none for the whole output.
    std::optional<SDL_Rect> destination(const VideoFrameInfo& frame) const;
    void dropTexture();
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
    PictureFit fit_ = PictureFit::Fill;
    std::shared_ptr<VideoFrameInfo> frame_;  // of the next refresh
    int64_t framePts_ = 0;                   // its time when it was given, in milliseconds
    bool isFilled_ = false;                  // texture_ holds frame_
    std::optional<int64_t> drawnMs_;         // when that was drawn; empty if it wasn't
    SubtitleLayer subtitles_;
    std::mutex mutex_;  // guards all of the above
};

}  // namespace kelp
