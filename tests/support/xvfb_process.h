#pragma once

#include <sys/types.h>

#include <string>

namespace kelp::test {

// An X server without hardware, which this object starts and ends. It goes with the thread that made the object,
// however that ends.
class XvfbProcess {
public:
    // Returns when the server takes connections. Servers of other tests that start at the same time, in whatever
    // process, are waited for.
    XvfbProcess(int width, int height);
    ~XvfbProcess();
    XvfbProcess(const XvfbProcess&) = delete;
    XvfbProcess& operator=(const XvfbProcess&) = delete;

    // The name of the display, such as ":1"; empty if the server doesn't start.
    const std::string& display() const { return display_; }

private:
    pid_t pid_ = -1;
    std::string display_;
};

}  // namespace kelp::test
