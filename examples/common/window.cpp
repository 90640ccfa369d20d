#include "window.h"

SDL_Window* createWindow(const char* title, int width, int height) {
    const auto create = [=](Uint32 flags) {
        return SDL_CreateWindow(title, SDL_WINDOWPOS_CENTERED, SDL_WINDOWPOS_CENTERED, width, height,
                                flags | SDL_WINDOW_RESIZABLE);
    };
    // For a renderer of OpenGL SDL makes any other window anew, and without a window manager nobody gives the new one
    // the keyboard.
    SDL_Window* window = create(SDL_WINDOW_OPENGL);
    // Not every video driver has OpenGL.
    return window != nullptr ? window : create(0);
}
