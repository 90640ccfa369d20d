#include "present/x_server.h"

#include <SDL_syswm.h>
#include <X11/Xutil.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <thread>

namespace kelp::test {

namespace {

constexpr int kStartMs = 20'000;
constexpr unsigned int kNoWindow = 0xff000000;  // no colour
constexpr auto kPatience = std::chrono::seconds(10);

// Writes the number of the display to `fd` when it is ready.
[[noreturn]] void runServer(int fd) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int null = open("/dev/null", O_RDWR);
    dup2(null, STDOUT_FILENO);
    dup2(null, STDERR_FILENO);
    const std::string number = std::to_string(fd);
    execlp("Xvfb", "Xvfb", "-displayfd", number.c_str(), "-screen", "0", "800x600x24", "-nolisten", "tcp", "-noreset",
           static_cast<char*>(nullptr));
    _exit(127);
}

std::string readNumber(int fd) {
    std::string number;
    pollfd ready{fd, POLLIN, 0};
    char digit = 0;
    while (poll(&ready, 1, kStartMs) > 0 && read(fd, &digit, 1) == 1 && digit != '\n') {
        number += digit;
    }
    return number;
}

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

XServer::XServer() {
    int fds[2];
    if (pipe(fds) != 0) {
        error_ = "no pipe";
        return;
    }
    pid_ = fork();
    if (pid_ == 0) {
        close(fds[0]);
        runServer(fds[1]);
    }
    close(fds[1]);
    const std::string number = readNumber(fds[0]);
    close(fds[0]);
    if (number.empty()) {
        error_ = "Xvfb doesn't start; is it installed?";
        return;
    }
    setenv("DISPLAY", (":" + number).c_str(), 1);
    setenv("SDL_VIDEODRIVER", "x11", 1);
    // Unless said otherwise nothing of the graphics driver, whose threads and leaks the sanitizers would report.
    setenv("SDL_RENDER_DRIVER", "software", 0);
    setenv("SDL_FRAMEBUFFER_ACCELERATION", "0", 0);
    setenv("SDL_SHUTDOWN_DBUS_ON_QUIT", "1", 1);
    display_ = XOpenDisplay(nullptr);
    if (!display_) {
        error_ = "no connection to display :" + number;
    }
}

XServer::~XServer() {
    if (display_) {
        XCloseDisplay(display_);
    }
    if (pid_ > 0) {
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
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
