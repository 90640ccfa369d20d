#include "tile_screen.h"

#include <algorithm>

#include "window.h"

TileScreen::~TileScreen() {
    for (const Slot& slot : slots_) {
        SDL_DestroyTexture(slot.texture);
    }
    if (renderer_ != nullptr) {
        SDL_DestroyRenderer(renderer_);
    }
    if (window_ != nullptr) {
        SDL_DestroyWindow(window_);
    }
}

bool TileScreen::open(size_t tiles, std::string& error) {
    window_ = createWindow("wall", 1280, 720);
    renderer_ = window_ != nullptr ? SDL_CreateRenderer(window_, -1, 0) : nullptr;
    if (renderer_ == nullptr) {
        error = SDL_GetError();
        return false;
    }
    slots_.resize(tiles);
    return true;
}

void TileScreen::draw(const std::vector<std::unique_ptr<Tile>>& tiles) {
    SDL_SetRenderDrawColor(renderer_, 0, 0, 0, 255);
    SDL_RenderClear(renderer_);
    for (size_t i = 0; i < slots_.size(); ++i) {
        Slot& slot = slots_[i];
        if (tiles[i]->takePicture(slot.picture)) {
            upload(slot);
        }
        if (slot.texture != nullptr) {
            const SDL_Rect place = placeOf(i);
            SDL_RenderCopy(renderer_, slot.texture, nullptr, &place);
        }
    }
    SDL_RenderPresent(renderer_);
}

void TileScreen::upload(Slot& slot) {
    const auto& picture = slot.picture;
    // Texture rows of chroma are rounded up, the player's down: an odd row or column is left out.
    const int width = picture.width & ~1;
    const int height = picture.height & ~1;
    int present = 0;
    int presentHeight = 0;
    if (slot.texture != nullptr) {
        SDL_QueryTexture(slot.texture, nullptr, nullptr, &present, &presentHeight);
    }
    if (present != width || presentHeight != height) {
        SDL_DestroyTexture(slot.texture);
        slot.texture = SDL_CreateTexture(renderer_, SDL_PIXELFORMAT_IYUV, SDL_TEXTUREACCESS_STREAMING, width, height);
    }
    if (slot.texture != nullptr) {
        SDL_UpdateYUVTexture(slot.texture, nullptr, picture.planes[0].data(), picture.width, picture.planes[1].data(),
                             picture.width / 2, picture.planes[2].data(), picture.width / 2);
    }
}

SDL_Rect TileScreen::placeOf(size_t index) const {
    int width = 0;
    int height = 0;
    SDL_GetRendererOutputSize(renderer_, &width, &height);
    const int count = static_cast<int>(slots_.size());
    int columns = 1;
    while (columns * columns < count) {
        ++columns;
    }
    const int rows = (count + columns - 1) / columns;
    const int column = static_cast<int>(index) % columns;
    const int row = static_cast<int>(index) / columns;
    SDL_Rect place{width * column / columns, height * row / rows, width / columns, height / rows};
    // The largest rectangle of the picture's shape, in the middle.
    const auto& picture = slots_[index].picture;
    const int fitWidth = std::min(place.w, place.h * picture.width / picture.height);
    const int fitHeight = std::min(place.h, place.w * picture.height / picture.width);
    place.x += (place.w - fitWidth) / 2;
    place.y += (place.h - fitHeight) / 2;
    place.w = fitWidth;
    place.h = fitHeight;
    return place;
}

void TileScreen::setTitle(const std::string& title) {
    if (window_ != nullptr && title != title_) {
        title_ = title;
        SDL_SetWindowTitle(window_, title.c_str());
    }
}
