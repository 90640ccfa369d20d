#include "present/x_server.h"

#include <SDL_syswm.h>
#include <X11/Xutil.h>

#include <chrono>
#include <cstdlib>
#include <thread>

namespace kelp::test {

namespace {

constexpr unsigned int kNoWindow = 0xff000000;  // no colour
constexpr auto kPatience = std::chrono::seconds(10);

unsigned int colorOf(Display* display, Window window, int x, int y, unsigned int expected) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    unsigned int color = 0;
    while (true) {
        XImage* image = XGetImage(display, window, x, y, 1, 1, AllPlanes, ZPixmap);
        if (!image) {
            return kNoWindow;
        }
        color = static_cast<unsigned int>(XGetPixel(image, 0, 0) & 0xffffff);
        XDestroyImage(image);
        if (color == expected || std::chrono::steady_clock::now() > deadline) {
            return color;
        }
        // Another process draws.
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

}  // namespace

XServer::XServer() : server_(800, 600) {
    if (server_.display().empty()) {
        error_ = "Xvfb doesn't start; is it installed?";
        return;
    }
    setenv("DISPLAY", server_.display().c_str(), 1);
    setenv("SDL_VIDEODRIVER", "x11", 1);
    // Unless said otherwise nothing of the graphics driver, whose threads and leaks the sanitizers would report.
    setenv("SDL_RENDER_DRIVER", "software", 0);
    setenv("SDL_FRAMEBUFFER_ACCELERATION", "0", 0);
    setenv("SDL_SHUTDOWN_DBUS_ON_QUIT", "1", 1);
    display_ = XOpenDisplay(nullptr);
    if (!display_) {
        error_ = "no connection to display " + server_.display();
    }
}

XServer::~XServer() {
    if (display_) {
        XCloseDisplay(display_);
    }
}

XWindow::XWindow(XServer& server, int x, int y, int width, int height) : display_(server.display()) {
    window_ = XCreateSimpleWindow(display_, DefaultRootWindow(display_), x, y, static_cast<unsigned int>(width),
                                  static_cast<unsigned int>(height), 0, 0, 0x0000ff);
    XSelectInput(display_, window_, StructureNotifyMask);
    XMapWindow(display_, window_);
    XEvent event;
    do {
        XNextEvent(display_, &event);
    } while (event.type != MapNotify);
    XSelectInput(display_, window_, NoEventMask);
    XSync(display_, True);
}

XWindow::~XWindow() {
    XDestroyWindow(display_, window_);
    XSync(display_, True);
}

std::pair<int, int> XWindow::size() const {
    XWindowAttributes attributes{};
    XGetWindowAttributes(display_, window_, &attributes);
    return {attributes.width, attributes.height};
}

unsigned int XWindow::waitForColor(int x, int y, unsigned int expected) const {
    return colorOf(display_, window_, x, y, expected);
}

unsigned int waitForColor(XServer& server, SDL_Window* window, int x, int y, unsigned int expected) {
    SDL_SysWMinfo info;
    SDL_VERSION(&info.version);
    if (!SDL_GetWindowWMInfo(window, &info)) {
        return kNoWindow;
    }
    return colorOf(server.display(), info.info.x11.window, x, y, expected);
}

}  // namespace kelp::test
