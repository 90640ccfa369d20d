#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "support/xvfb_process.h"

struct _XDisplay;

namespace kelp::test {

using Rgb = std::array<int, 3>;

// A screen of its own for windows of a test: an X server without hardware, which this object starts and ends. SDL is
// told to use it. Make it before SDL's video is started; one at a time.
class XScreen {
public:
    XScreen(int width, int height);
    ~XScreen();
    XScreen(const XScreen&) = delete;
    XScreen& operator=(const XScreen&) = delete;

    // A plain window of another client, as a UI toolkit would hand it out; shown at once, filled with grey.
    unsigned long createWindow(int x, int y, int width, int height);
    // Takes away every window made here.
    void destroyWindows();
    void resizeWindow(unsigned long window, int width, int height);
    // Of a window that may have been resized by others; by the handle that a player gets.
    std::pair<int, int> windowSize(const void* window);

    // What the screen shows at a place.
    Rgb pixel(int x, int y);
    // Whether it shows `color` there, within `tolerance` in each channel, now or within `timeoutMs`.
    bool waitForPixel(int x, int y, Rgb color, int tolerance = 8, int timeoutMs = 15000);
    // A part of the screen, three bytes a pixel.
    std::vector<uint8_t> grab(int x, int y, int width, int height);

private:
    XvfbProcess server_;
    _XDisplay* display_ = nullptr;
    std::vector<unsigned long> windows_;
};

}  // namespace kelp::test
