#pragma once

#include <SDL.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace kelp::test {

// While it lives, writes down the drawing calls that reach SDL, lets some of them fail, and reads the picture back
// right before it is presented. One at a time; for one thread at a time. Needs the functions of sdl_calls.cpp among the
// WRAPped symbols.
class SdlCalls {
public:
    SdlCalls();
    ~SdlCalls();
    SdlCalls(const SdlCalls&) = delete;
    SdlCalls& operator=(const SdlCalls&) = delete;

    // What was called, in order: the function's name without "SDL_" and its arguments, no pointers.
    std::vector<std::string> calls;

    // Functions that fail without being called, by name without "SDL_"; with arguments behind
    // the name, as in `calls`, for those only.
    std::set<std::string> failing;

    // The output size that a renderer reports instead of its own.
    std::optional<std::pair<int, int>> outputSize;

    // A renderer has no texture formats.
    bool noTextureFormats = false;

    // The window that SDL_CreateWindowFrom gives; without one it is called.
    SDL_Window* windowFrom = nullptr;

    // Called before a picture is presented.
    std::function<void(SDL_Window*)> onPresent = [](SDL_Window*) {};

    // The picture last presented.
    struct Color {
        int r;
        int g;
        int b;
    };
    Color pixel(int x, int y) const;

private:
    friend struct SdlCallHooks;
    std::vector<uint32_t> pixels_;
    int width_ = 0;
};

}  // namespace kelp::test
