#include "support/x_screen.h"

#include <X11/Xlib.h>
#include <X11/Xutil.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

namespace kelp::test {

namespace {

[[noreturn]] void giveUp(const char* what) {
    std::fprintf(stderr, "no X server for this test: %s\n", what);
    std::abort();
}

// The bits of one channel of a pixel.
int channel(unsigned long pixel, unsigned long mask) {
    int shift = 0;
    while (mask != 0 && ((mask >> shift) & 1UL) == 0) {
        ++shift;
    }
    return static_cast<int>((pixel & mask) >> shift);
}

}  // namespace

XScreen::XScreen(int width, int height) : server_(width, height) {
    const std::string& name = server_.display();
    if (name.empty()) {
        giveUp("Xvfb didn't start");
    }
    setenv("DISPLAY", name.c_str(), 1);
    setenv("SDL_VIDEODRIVER", "x11", 1);
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    // The graphics driver writes past its memory and races on threads of its own when windows come and go.
    setenv("SDL_RENDER_DRIVER", "software", 1);
    // It would bring its pictures to the window by the same driver.
    setenv("SDL_FRAMEBUFFER_ACCELERATION", "0", 1);
#endif
    display_ = XOpenDisplay(name.c_str());
    if (display_ == nullptr) {
        giveUp("it doesn't answer");
    }
}

XScreen::~XScreen() {
    XCloseDisplay(display_);
}

unsigned long XScreen::createWindow(int x, int y, int width, int height) {
    const Window window = XCreateSimpleWindow(display_, DefaultRootWindow(display_), x, y, static_cast<unsigned>(width),
                                              static_cast<unsigned>(height), 0, 0, 0x808080);
    XMapWindow(display_, window);
    XSync(display_, False);
    windows_.push_back(window);
    return window;
}

void XScreen::destroyWindows() {
    for (const Window window : windows_) {
        XDestroyWindow(display_, window);
    }
    windows_.clear();
    XSync(display_, False);
}

void XScreen::resizeWindow(unsigned long window, int width, int height) {
    XResizeWindow(display_, window, static_cast<unsigned>(width), static_cast<unsigned>(height));
    XSync(display_, False);
}

std::pair<int, int> XScreen::windowSize(const void* window) {
    XWindowAttributes attributes{};
    XGetWindowAttributes(display_, reinterpret_cast<Window>(window), &attributes);
    return {attributes.width, attributes.height};
}

std::vector<uint8_t> XScreen::grab(int x, int y, int width, int height) {
    XImage* image = XGetImage(display_, DefaultRootWindow(display_), x, y, static_cast<unsigned>(width),
                              static_cast<unsigned>(height), AllPlanes, ZPixmap);
    std::vector<uint8_t> bytes;
    for (int row = 0; row < height; ++row) {
        for (int column = 0; column < width; ++column) {
            const unsigned long pixel = XGetPixel(image, column, row);
            for (const unsigned long mask : {image->red_mask, image->green_mask, image->blue_mask}) {
                bytes.push_back(static_cast<uint8_t>(channel(pixel, mask)));
            }
        }
    }
    XDestroyImage(image);
    return bytes;
}

Rgb XScreen::pixel(int x, int y) {
    const auto bytes = grab(x, y, 1, 1);
    return {bytes[0], bytes[1], bytes[2]};
}

bool XScreen::waitForPixel(int x, int y, Rgb color, int tolerance, int timeoutMs) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (true) {
        const Rgb seen = pixel(x, y);
        bool same = true;
        for (size_t i = 0; i < seen.size(); ++i) {
            same = same && std::abs(seen[i] - color[i]) <= tolerance;
        }
        if (same) {
            return true;
        }
        if (std::chrono::steady_clock::now() > end) {
            std::fprintf(stderr, "at (%d, %d): %d %d %d instead of %d %d %d\n", x, y, seen[0], seen[1], seen[2],
                         color[0], color[1], color[2]);
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

}  // namespace kelp::test
