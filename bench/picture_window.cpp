#include "picture_window.h"

#include <SDL.h>

#include <initializer_list>

namespace kelp::bench {

PictureWindow::PictureWindow(int width, int height) {
    if (SDL_Init(SDL_INIT_VIDEO) != 0) {
        return;
    }
    // The dummy driver has no OpenGL.
    for (const Uint32 flags : {Uint32{SDL_WINDOW_OPENGL}, Uint32{0}}) {
        window_ = window_ ? window_ : SDL_CreateWindow("kelp_bench", 0, 0, width, height, flags);
    }
}

PictureWindow::~PictureWindow() {
    if (texture_) {
        SDL_DestroyTexture(texture_);
    }
    if (renderer_) {
        SDL_DestroyRenderer(renderer_);
    }
    if (window_) {
        SDL_DestroyWindow(window_);
    }
}

void PictureWindow::serve() {
    for (SDL_Event event; SDL_PollEvent(&event) != 0;) {
    }
}

bool PictureWindow::draw(const uint8_t* planes, int width, int height) {
    if (!renderer_) {
        renderer_ = SDL_CreateRenderer(window_, -1, SDL_RENDERER_ACCELERATED | SDL_RENDERER_PRESENTVSYNC);
        renderer_ = renderer_ ? renderer_ : SDL_CreateRenderer(window_, -1, 0);
        texture_ = SDL_CreateTexture(renderer_, SDL_PIXELFORMAT_IYUV, SDL_TEXTUREACCESS_STREAMING, width, height);
    }
    serve();
    const int chromaWidth = (width + 1) / 2;
    const uint8_t* u = planes + width * height;
    const uint8_t* v = u + chromaWidth * ((height + 1) / 2);
    if (!texture_ || SDL_UpdateYUVTexture(texture_, nullptr, planes, width, u, chromaWidth, v, chromaWidth) != 0) {
        return false;
    }
    SDL_RenderClear(renderer_);
    SDL_RenderCopy(renderer_, texture_, nullptr, nullptr);
    SDL_RenderPresent(renderer_);
    return true;
}

}  // namespace kelp::bench
