#include "present/sdl_render.h"

#include <algorithm>
#include <cstdint>
#include <tuple>
#include <utility>
#include <vector>

#include "decode/decoded_frame.h"
#include "kelp_player/log.h"
#include "present/conversion_turn.h"
#include "present/fitted_rectangle.h"
#include "present/sdl_thread_storage.h"
#include "runtime/kelp_time.h"

namespace kelp {

namespace {

constexpr char kTag[] = "SDLRender";
constexpr int kPlanes = 3;
constexpr uint8_t kNoColor = 128;  // of a chroma sample
constexpr int kMaxKeepMs = 100;

// SDL's windows are in a list of the process, which two players' threads must not change at the same time.
std::mutex& windowsMutex() {
    static std::mutex mutex;
    return mutex;
}

// Where a turned picture goes before SDL turns it about the centre: it keeps its aspect ratio, and it is centred in
// the output. `width` and `height` are the picture's.
SDL_Rect turnedRect(int64_t width, int64_t height, int64_t outputWidth, int64_t outputHeight) {
    int64_t rectWidth = outputHeight;
    int64_t rectHeight = outputWidth;
    if (width > 0 && height > 0) {
        if (width * outputWidth > height * outputHeight) {
            rectHeight = height * outputHeight / width;
        } else {
            rectWidth = width * outputWidth / height;
        }
    }
    return {static_cast<int>((outputWidth - rectWidth) / 2), static_cast<int>((outputHeight - rectHeight) / 2),
            static_cast<int>(rectWidth), static_cast<int>(rectHeight)};
}

SDL_YUV_CONVERSION_MODE conversionMode(const VideoFrameInfo& frame) {
    constexpr int32_t kFullRange = 2;
    constexpr int32_t kBt709 = 1;
    constexpr int32_t kBt601 = 2;
    if (frame.pixFormat != PIX_FMT_YUV420P) {
        return SDL_YUV_CONVERSION_AUTOMATIC;
    }
    if (frame.colorRange == kFullRange) {
        return SDL_YUV_CONVERSION_JPEG;
    }
    if (frame.colorSpace == kBt709) {
        return SDL_YUV_CONVERSION_BT709;
    }
    if (frame.colorSpace == kBt601) {
        return SDL_YUV_CONVERSION_BT601;
    }
    return SDL_YUV_CONVERSION_AUTOMATIC;
}

// Whether SDL may read `width` by `height` pixels from the first `planes` planes without leaving the frame's block. SDL
// rounds the chroma size up, the frame's planes are rounded down. A frame whose planes lie elsewhere is trusted.
bool isInsideBlock(const VideoFrameInfo& frame, int planes, int64_t width, int64_t height) {
    if (!frame.buffer) {
        return true;
    }
    const auto begin = reinterpret_cast<uintptr_t>(frame.buffer->data);
    const auto end = begin + frame.buffer->size;
    const auto isInside = [&](const uint8_t* data) {
        const auto address = reinterpret_cast<uintptr_t>(data);
        return begin <= address && address < end;
    };
    if (!isInside(frame.data[0])) {
        return true;
    }
    for (int plane = 0; plane < planes; ++plane) {
        const int64_t rowBytes = plane == 0 ? width : (width + 1) / 2;
        const int64_t rows = plane == 0 ? height : (height + 1) / 2;
        const int64_t bytes = (rows - 1) * frame.linesize[plane] + rowBytes;
        if (!isInside(frame.data[plane]) || frame.linesize[plane] < 0 ||
            bytes > static_cast<int64_t>(end - reinterpret_cast<uintptr_t>(frame.data[plane]))) {
            return false;
        }
    }
    return true;
}

}  // namespace

SDLRender::~SDLRender() {
    if (renderer_ || (window_ && windowType_ != WINDOW_TYPE_SDL)) {
        close();
    }
}

bool SDLRender::init(WindowType type, void* window, int width, int height, int /*fps*/) {
    freeSdlStorageAtThreadEnd();
    std::lock_guard lock(mutex_);
    std::lock_guard windows(windowsMutex());
    windowType_ = type;
    if (type == WINDOW_TYPE_QT_WINID) {
        Log::Info(kTag, "window type is QT winid, start create window:%p, %dx%d\n", window, width, height);
        window_ = SDL_CreateWindowFrom(window);
        if (!window_) {
            Log::Error(kTag, "Failed to create window: %s\n", SDL_GetError());
            return false;
        }
        SDL_SetWindowSize(window_, width, height);
        Log::Info(kTag, "window type is QT winid, create window succeed, window:%p, window_:%p\n", window,
                  static_cast<void*>(window_));
        SDL_SetHint(SDL_HINT_RENDER_SCALE_QUALITY, "linear");
    } else {
        Log::Info(kTag, "unknown window type: %d, window:%p\n", static_cast<int>(type), window);
        window_ = static_cast<SDL_Window*>(window);
    }
    width_ = width;
    height_ = height;
    return createRenderer();
}

void SDLRender::setSubtitles(const std::shared_ptr<SubtitleScreen>& subtitles) {
    std::lock_guard lock(mutex_);
    subtitles_.setSource(subtitles);
}

SubtitleLayer::Picture SDLRender::subtitlePicture() const {
    const bool lies = isOnItsSide(frame_->rotate);
    const FittedRectangle kept = fit_ == PictureFit::Keep ? FittedRectangle::of(*frame_, width_, height_)
                                                          : FittedRectangle{0, 0, width_, height_};
    return {frame_->filmMs(), SDL_Rect{kept.x, kept.y, kept.width, kept.height}, lies ? frame_->height : frame_->width,
            lies ? frame_->width : frame_->height};
}

bool SDLRender::updateWindowSize(int width, int height) {
    Log::Debug(kTag, "%s, %dx%d\n", "updateWindowSize", width, height);
    std::lock_guard lock(mutex_);
    SDL_SetWindowSize(window_, width, height);
    return true;
}

void SDLRender::setFit(PictureFit fit) {
    std::lock_guard lock(mutex_);
    fit_ = fit;
    drawnMs_.reset();
}

int SDLRender::keepsForMs(const std::shared_ptr<VideoFrameInfo>& frame) {
    std::lock_guard lock(mutex_);
    if (!drawnMs_ || (frame && !isKnown(*frame)) || outputSize() != std::pair(width_, height_)) {
        return 0;
    }
    const int64_t sinceMs = KelpTime::getTimeMs() - *drawnMs_;  // of a clock that may be set
    const int keptMs = sinceMs >= 0 && sinceMs < kMaxKeepMs ? static_cast<int>(kMaxKeepMs - sinceMs) : 0;
    return frame_ && subtitles_.isAny() ? std::min(keptMs, subtitles_.keepsForMs(subtitlePicture())) : keptMs;
}

bool SDLRender::fillFrame(std::shared_ptr<VideoFrameInfo> frame) {
    std::lock_guard lock(mutex_);
    if (frame && !isKnown(*frame)) {
        framePts_ = frame->pts;
        isFilled_ = false;
        drawnMs_.reset();
    }
    frame_ = std::move(frame);
    return true;
}

bool SDLRender::refresh() {
    std::lock_guard lock(mutex_);
    drawnMs_.reset();
    if (!renderer_ || !window_) {
        return false;
    }
    followOutputSize();
    SDL_SetRenderDrawColor(renderer_, 0, 0, 0, SDL_ALPHA_OPAQUE);
    SDL_RenderClear(renderer_);
    if (!frame_) {
        SDL_RenderPresent(renderer_);
        drawnMs_ = KelpTime::getTimeMs();
        return true;
    }

    bool drawn = false;
    {
        ConversionTurn turn(conversionMode(*frame_));
        drawn = turn.drew(draw(*frame_));
    }
    if (drawn) {
        if (subtitles_.isAny()) {
            subtitles_.draw(renderer_, subtitlePicture());
        }
        SDL_RenderPresent(renderer_);
    }
    return drawn;
}

void SDLRender::close() {
    std::lock_guard lock(mutex_);
    Log::Debug(kTag, "close, window_:%p\n", static_cast<void*>(window_));
    if (renderer_) {
        SDL_SetRenderDrawColor(renderer_, 0, 0, 0, SDL_ALPHA_OPAQUE);
        SDL_RenderClear(renderer_);
        SDL_RenderPresent(renderer_);
    }
    freeAll();
}

void SDLRender::leave() {
    std::lock_guard lock(mutex_);
    Log::Debug(kTag, "leave, window_:%p\n", static_cast<void*>(window_));
    freeAll();
}

void SDLRender::freeAll() {
    std::lock_guard windows(windowsMutex());
    // The textures go first: the renderer would take them along and leave the pointers to freed memory.
    subtitles_.free();
    dropTexture();
    if (renderer_) {
        SDL_DestroyRenderer(renderer_);
        renderer_ = nullptr;
    }
    if (windowType_ != WINDOW_TYPE_SDL && window_) {
        SDL_DestroyWindow(window_);
        window_ = nullptr;
    }
    frame_.reset();
    drawnMs_.reset();
}

// Leaves the choice of the driver to SDL; the list is for the log.
bool SDLRender::createRenderer() {
    const int drivers = SDL_GetNumRenderDrivers();
    for (int i = 0; i < drivers; ++i) {
        SDL_RendererInfo driver{};
        if (SDL_GetRenderDriverInfo(i, &driver) == 0) {
            Log::Debug(kTag, "render driver info, i:%d, name:%s, max_texture.size: %dx%d\n", i, driver.name,
                       driver.max_texture_width, driver.max_texture_height);
        }
    }

    renderer_ = SDL_CreateRenderer(window_, -1, SDL_RENDERER_ACCELERATED | SDL_RENDERER_PRESENTVSYNC);
    if (!renderer_) {
        Log::Warn(kTag, "Failed to initialize a hardware accelerated renderer: %s\n", SDL_GetError());
        renderer_ = SDL_CreateRenderer(window_, -1, 0);
    }
    SDL_RendererInfo info{};
    if (renderer_ && SDL_GetRendererInfo(renderer_, &info) == 0) {
        Log::Info(kTag, "Initialized %s renderer.\n", info.name);
    }
    if (!renderer_ || info.num_texture_formats == 0) {
        Log::Error(kTag, "Failed to create window or renderer: %s", SDL_GetError());
        return false;
    }
    return true;
}

// The last one known if the renderer doesn't tell.
std::pair<int, int> SDLRender::outputSize() {
    std::pair size(width_, height_);
    SDL_GetRendererOutputSize(renderer_, &size.first, &size.second);
    return size;
}

// A texture doesn't outlive a change of the output's size.
void SDLRender::followOutputSize() {
    const auto size = outputSize();
    if (size == std::pair(width_, height_)) {
        return;
    }
    std::tie(width_, height_) = size;
    dropTexture();
}

void SDLRender::dropTexture() {
    if (texture_) {
        SDL_DestroyTexture(texture_);
        texture_ = nullptr;
    }
}

bool SDLRender::draw(const VideoFrameInfo& frame) {
    if (!prepareTexture(frame)) {
        return false;
    }
    isFilled_ = isFilled_ || updateTexture(frame);
    if (!isFilled_) {
        Log::Error(kTag, "SDL_UpdateYUVTexture failed\n");
        return false;
    }
    const auto rect = destination(frame);
    if (SDL_RenderCopyEx(renderer_, texture_, nullptr, rect ? &*rect : nullptr, frame.rotate, nullptr, SDL_FLIP_NONE) <
        0) {
        Log::Error(kTag, "SDL_RenderCopyEx faield\n");
        return true;
    }
    drawnMs_ = KelpTime::getTimeMs();
    return true;
}

std::optional<SDL_Rect> SDLRender::destination(const VideoFrameInfo& frame) const {
    if (fit_ == PictureFit::Keep) {
        const auto seen = FittedRectangle::of(frame, width_, height_);
        const auto rect = isOnItsSide(frame.rotate) ? seen.beforeTurning() : seen;
        return SDL_Rect{rect.x, rect.y, rect.width, rect.height};
    }
    if (frame.rotate % 180 == 0) {
        return std::nullopt;
    }
    return turnedRect(frame.width, frame.height, width_, height_);
}

bool SDLRender::prepareTexture(const VideoFrameInfo& frame) {
    if (frame.pixFormat == PIX_FMT_PACKET) {
        return false;  // not a picture, and two of the planes are not even set
    }
    if (fit_ == PictureFit::Keep && (frame.width != textureWidth_ || frame.height != textureHeight_)) {
        dropTexture();
    }
    if (texture_) {
        return true;
    }
    texture_ =
        SDL_CreateTexture(renderer_, SDL_PIXELFORMAT_IYUV, SDL_TEXTUREACCESS_STREAMING, frame.width, frame.height);
    isFilled_ = false;
    if (!texture_) {
        return false;
    }
    textureWidth_ = frame.width;
    textureHeight_ = frame.height;
    return SDL_SetTextureBlendMode(texture_, SDL_BLENDMODE_NONE) >= 0;
}

// SDL reads as many pixels from the planes as the texture has, so a texture that is larger than the picture is only
// updated as far as the picture goes.
bool SDLRender::updateTexture(const VideoFrameInfo& frame) {
    SDL_Rect area{0, 0, std::min(textureWidth_, frame.width), std::min(textureHeight_, frame.height)};
    // The chroma rows of a picture one pixel wide have no bytes: it is shown without colour.
    const bool hasColor = frame.width != 1 || frame.linesize[1] != 0;
    const int planes = hasColor ? kPlanes : 1;
    // A column or a row at an odd edge may have no chroma in the block.
    if (!isInsideBlock(frame, planes, area.w, area.h)) {
        area.w &= ~1;
    }
    if (!isInsideBlock(frame, planes, area.w, area.h)) {
        area.h &= ~1;
    }
    if (area.w <= 0 || area.h <= 0 || !isInsideBlock(frame, planes, area.w, area.h)) {
        return false;
    }
    const bool whole = area.w == textureWidth_ && area.h == textureHeight_;
    const SDL_Rect* const rect = whole ? nullptr : &area;
    if (hasColor) {
        return SDL_UpdateYUVTexture(texture_, rect, frame.data[0], frame.linesize[0], frame.data[1], frame.linesize[1],
                                    frame.data[2], frame.linesize[2]) >= 0;
    }
    const std::vector<uint8_t> grey(static_cast<size_t>(area.h), kNoColor);
    return SDL_UpdateYUVTexture(texture_, rect, frame.data[0], frame.linesize[0], grey.data(), 1, grey.data(), 1) >= 0;
}

}  // namespace kelp
