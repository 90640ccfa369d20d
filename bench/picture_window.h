#pragma once

#include <cstdint>

struct SDL_Renderer;
struct SDL_Texture;
struct SDL_Window;

namespace kelp::bench {

// A window of SDL's on the driver that the environment names. For one thread.
class PictureWindow {
public:
    PictureWindow(int width, int height);
    ~PictureWindow();
    PictureWindow(const PictureWindow&) = delete;
    PictureWindow& operator=(const PictureWindow&) = delete;

    // Null if it couldn't be made.
    SDL_Window* handle() { return window_; }

    // Takes what the system has to say to the window, which a host does all the time.
    static void serve();

    // Uploads a picture of three planes, 4:2:0, that lie behind each other, and draws it. Makes a renderer first, as
    // the player does.
    bool draw(const uint8_t* planes, int width, int height);

private:
    SDL_Window* window_ = nullptr;
    SDL_Renderer* renderer_ = nullptr;
    SDL_Texture* texture_ = nullptr;
};

}  // namespace kelp::bench
