#pragma once

#include <string>
#include <utility>

#include "support/xvfb_process.h"

// Xlib's own header would bring its macros along.
struct _XDisplay;
struct SDL_Window;

namespace kelp::test {

// A screen of 800 by 600 that nobody sees: a server process of its own, ended with this object. Makes the process use
// it (DISPLAY) and SDL draw on it by software.
class XServer {
public:
    XServer();
    ~XServer();
    XServer(const XServer&) = delete;
    XServer& operator=(const XServer&) = delete;

    // Whether the server runs; if not, why.
    bool isRunning() const { return display_ != nullptr; }
    const std::string& error() const { return error_; }

    _XDisplay* display() const { return display_; }

private:
    XvfbProcess server_;
    _XDisplay* display_ = nullptr;  // a connection of the test's own, beside SDL's
    std::string error_;
};

// A native window as a host's toolkit would make it.
class XWindow {
public:
    XWindow(XServer& server, int x, int y, int width, int height);
    ~XWindow();
    XWindow(const XWindow&) = delete;
    XWindow& operator=(const XWindow&) = delete;

    void* handle() const { return reinterpret_cast<void*>(window_); }
    std::pair<int, int> size() const;

    // The colour at a place as 0xRRGGBB; waits up to some seconds of real time until it is `expected`.
    unsigned int waitForColor(int x, int y, unsigned int expected) const;

private:
    _XDisplay* const display_;
    unsigned long window_ = 0;
};

// The same for a window that SDL made.
unsigned int waitForColor(XServer& server, SDL_Window* window, int x, int y, unsigned int expected);

}  // namespace kelp::test
