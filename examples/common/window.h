#pragma once

#include <SDL.h>

// A window in the middle of the screen that a renderer can be made for at any time; null if there is none, and
// SDL_GetError() says why.
SDL_Window* createWindow(const char* title, int width, int height);
