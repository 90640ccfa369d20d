#pragma once

#include <SDL.h>

#include <memory>
#include <string>
#include <vector>

#include "tile.h"

// The wall's window: draws the tiles' pictures side by side, each in its own shape. All on the main thread.
class TileScreen {
public:
    TileScreen() = default;
    ~TileScreen();
    TileScreen(const TileScreen&) = delete;
    TileScreen& operator=(const TileScreen&) = delete;

    // Opens the window; false, with the reason in `error`, if it can't.
    bool open(size_t tiles, std::string& error);
    bool isOpen() const { return renderer_ != nullptr; }

    // Shows what the tiles show now.
    void draw(const std::vector<std::unique_ptr<Tile>>& tiles);

    void setTitle(const std::string& title);

private:
    struct Slot {
        SDL_Texture* texture = nullptr;
        Tile::Picture picture;
    };

    void upload(Slot& slot);
    // Where the picture of slot `index` goes.
    SDL_Rect placeOf(size_t index) const;

    SDL_Window* window_ = nullptr;
    SDL_Renderer* renderer_ = nullptr;
    std::vector<Slot> slots_;
    std::string title_;
};
