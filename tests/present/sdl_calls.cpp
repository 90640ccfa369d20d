#include "present/sdl_calls.h"

#include <cstdio>
#include <tuple>

namespace kelp::test {

namespace {

SdlCalls* current = nullptr;

template <class... Args>
std::string format(const char* text, Args... args) {
    char line[128];
    std::snprintf(line, sizeof(line), text, args...);
    return line;
}

std::string format(const SDL_Rect* rect) {
    return rect ? format("%d,%d %dx%d", rect->x, rect->y, rect->w, rect->h) : "null";
}

// Writes the call down. Whether it is to fail.
bool note(const std::string& call) {
    if (!current) {
        return false;
    }
    current->calls.push_back(call);
    for (const auto& failing : current->failing) {
        if (call.starts_with(failing)) {
            SDL_SetError("made to fail");
            return true;
        }
    }
    return false;
}

}  // namespace

struct SdlCallHooks {
    static void readPicture(SDL_Renderer* renderer) {
        if (!current) {
            return;
        }
        SDL_Rect size{};
        SDL_RenderGetViewport(renderer, &size);
        current->onPresent(SDL_RenderGetWindow(renderer));
        current->pixels_.assign(static_cast<size_t>(size.w * size.h), 0);
        current->width_ = size.w;
        SDL_RenderReadPixels(renderer, nullptr, SDL_PIXELFORMAT_ARGB8888, current->pixels_.data(), size.w * 4);
    }
};

SdlCalls::SdlCalls() {
    current = this;
}

SdlCalls::~SdlCalls() {
    current = nullptr;
}

SdlCalls::Color SdlCalls::pixel(int x, int y) const {
    const uint32_t argb = pixels_.at(static_cast<size_t>(y * width_ + x));
    return {static_cast<int>(argb >> 16 & 0xff), static_cast<int>(argb >> 8 & 0xff), static_cast<int>(argb & 0xff)};
}

}  // namespace kelp::test

using kelp::test::current;
using kelp::test::format;
using kelp::test::note;

extern "C" {

SDL_Window* __real_SDL_CreateWindowFrom(const void*);
SDL_Window* __wrap_SDL_CreateWindowFrom(const void* data) {
    if (note("CreateWindowFrom")) {
        return nullptr;
    }
    return current && current->windowFrom ? current->windowFrom : __real_SDL_CreateWindowFrom(data);
}

void __real_SDL_SetWindowSize(SDL_Window*, int, int);
void __wrap_SDL_SetWindowSize(SDL_Window* window, int w, int h) {
    note(format("SetWindowSize %dx%d", w, h));
    __real_SDL_SetWindowSize(window, w, h);
}

SDL_bool __real_SDL_SetHint(const char*, const char*);
SDL_bool __wrap_SDL_SetHint(const char* name, const char* value) {
    note(format("SetHint %s=%s", name, value));
    return __real_SDL_SetHint(name, value);
}

SDL_Renderer* __real_SDL_CreateRenderer(SDL_Window*, int, Uint32);
SDL_Renderer* __wrap_SDL_CreateRenderer(SDL_Window* window, int index, Uint32 flags) {
    return note(format("CreateRenderer %d %u", index, flags)) ? nullptr
                                                              : __real_SDL_CreateRenderer(window, index, flags);
}

int __real_SDL_GetRendererInfo(SDL_Renderer*, SDL_RendererInfo*);
int __wrap_SDL_GetRendererInfo(SDL_Renderer* renderer, SDL_RendererInfo* info) {
    if (note("GetRendererInfo")) {
        return -1;
    }
    const int result = __real_SDL_GetRendererInfo(renderer, info);
    if (current && current->noTextureFormats) {
        info->num_texture_formats = 0;
    }
    return result;
}

int __real_SDL_GetRendererOutputSize(SDL_Renderer*, int*, int*);
int __wrap_SDL_GetRendererOutputSize(SDL_Renderer* renderer, int* w, int* h) {
    if (note("GetRendererOutputSize")) {
        return -1;
    }
    if (current && current->outputSize) {
        std::tie(*w, *h) = *current->outputSize;
        return 0;
    }
    return __real_SDL_GetRendererOutputSize(renderer, w, h);
}

int __real_SDL_SetRenderDrawColor(SDL_Renderer*, Uint8, Uint8, Uint8, Uint8);
int __wrap_SDL_SetRenderDrawColor(SDL_Renderer* renderer, Uint8 r, Uint8 g, Uint8 b, Uint8 a) {
    note(format("SetRenderDrawColor %d %d %d %d", r, g, b, a));
    return __real_SDL_SetRenderDrawColor(renderer, r, g, b, a);
}

int __real_SDL_RenderClear(SDL_Renderer*);
int __wrap_SDL_RenderClear(SDL_Renderer* renderer) {
    note("RenderClear");
    return __real_SDL_RenderClear(renderer);
}

void __real_SDL_RenderPresent(SDL_Renderer*);
void __wrap_SDL_RenderPresent(SDL_Renderer* renderer) {
    note("RenderPresent");
    kelp::test::SdlCallHooks::readPicture(renderer);
    __real_SDL_RenderPresent(renderer);
}

void __real_SDL_SetYUVConversionMode(SDL_YUV_CONVERSION_MODE);
void __wrap_SDL_SetYUVConversionMode(SDL_YUV_CONVERSION_MODE mode) {
    note(format("SetYUVConversionMode %d", mode));
    __real_SDL_SetYUVConversionMode(mode);
}

SDL_Texture* __real_SDL_CreateTexture(SDL_Renderer*, Uint32, int, int, int);
SDL_Texture* __wrap_SDL_CreateTexture(SDL_Renderer* renderer, Uint32 pixels, int access, int w, int h) {
    if (note(format("CreateTexture %s %d %dx%d", SDL_GetPixelFormatName(pixels), access, w, h))) {
        return nullptr;
    }
    return __real_SDL_CreateTexture(renderer, pixels, access, w, h);
}

int __real_SDL_SetTextureBlendMode(SDL_Texture*, SDL_BlendMode);
int __wrap_SDL_SetTextureBlendMode(SDL_Texture* texture, SDL_BlendMode mode) {
    return note(format("SetTextureBlendMode %d", mode)) ? -1 : __real_SDL_SetTextureBlendMode(texture, mode);
}

int __real_SDL_UpdateYUVTexture(SDL_Texture*, const SDL_Rect*, const Uint8*, int, const Uint8*, int, const Uint8*, int);
int __wrap_SDL_UpdateYUVTexture(SDL_Texture* texture, const SDL_Rect* rect, const Uint8* y, int yPitch, const Uint8* u,
                                int uPitch, const Uint8* v, int vPitch) {
    if (note(format("UpdateYUVTexture %s pitch %d %d %d, u at %d, v at %d", format(rect).c_str(), yPitch, uPitch,
                    vPitch, static_cast<int>(u - y), static_cast<int>(v - y)))) {
        return -1;
    }
    return __real_SDL_UpdateYUVTexture(texture, rect, y, yPitch, u, uPitch, v, vPitch);
}

int __real_SDL_RenderCopyEx(SDL_Renderer*, SDL_Texture*, const SDL_Rect*, const SDL_Rect*, double, const SDL_Point*,
                            SDL_RendererFlip);
int __wrap_SDL_RenderCopyEx(SDL_Renderer* renderer, SDL_Texture* texture, const SDL_Rect* from, const SDL_Rect* to,
                            double angle, const SDL_Point* center, SDL_RendererFlip flip) {
    if (note(format("RenderCopyEx from %s to %s angle %g center %s flip %d", format(from).c_str(), format(to).c_str(),
                    angle, center ? "set" : "null", flip))) {
        return -1;
    }
    return __real_SDL_RenderCopyEx(renderer, texture, from, to, angle, center, flip);
}

void __real_SDL_DestroyTexture(SDL_Texture*);
void __wrap_SDL_DestroyTexture(SDL_Texture* texture) {
    note("DestroyTexture");
    __real_SDL_DestroyTexture(texture);
}

void __real_SDL_DestroyRenderer(SDL_Renderer*);
void __wrap_SDL_DestroyRenderer(SDL_Renderer* renderer) {
    note("DestroyRenderer");
    __real_SDL_DestroyRenderer(renderer);
}

void __real_SDL_TLSCleanup();
void __wrap_SDL_TLSCleanup() {
    note("TLSCleanup");
    __real_SDL_TLSCleanup();
}

void __real_SDL_DestroyWindow(SDL_Window*);
void __wrap_SDL_DestroyWindow(SDL_Window* window) {
    note("DestroyWindow");
    __real_SDL_DestroyWindow(window);
}

}  // extern "C"
