#pragma once

#include <sys/types.h>

#include <string>
#include <utility>
#include <vector>

namespace kelp::test {

// A real RTSP server on the loopback address, in a process of its own: rtsp_server.py says what it serves. It listens
// on a port of the system's choice and keeps that port over a kill and a start. One thread uses it. The process dies
// with this object, and with the test program however that ends.
class RtspServer {
public:
    // Name and path: the streams of the file are served under that name, again and again.
    using Files = std::vector<std::pair<std::string, std::string>>;

    // Starts the server; ends the test program if it doesn't answer. A `port` other than 0 is taken as it is.
    explicit RtspServer(Files files = {}, int port = 0);
    ~RtspServer();
    RtspServer(const RtspServer&) = delete;
    RtspServer& operator=(const RtspServer&) = delete;

    std::string url(const std::string& name) const;
    int port() const { return port_; }

    // Ends the process at once, as a machine that loses its power: its connections are reset or closed by the kernel.
    void kill();
    // Starts the process again after a kill, under the same port.
    void start();

    // Stops the process and lets it go on: meanwhile its connections stay, and nothing comes.
    void suspend();
    void proceed();

private:
    const Files files_;
    int port_;
    pid_t process_ = -1;  // -1 while none runs
};

}  // namespace kelp::test
