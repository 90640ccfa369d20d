#pragma once

#include <csignal>
#include <string>
#include <utility>
#include <vector>

#include "e2e/child_process.h"

namespace kelp::test {

// A real RTSP server on the loopback address, in a process of its own: rtsp_server.py says what it serves. It listens
// on a port of the system's choice and keeps that port over a kill and a start. The process dies with this object, and
// with the test program however that ends. One thread uses it.
class RtspServer {
public:
    // Name and path: the streams of the file are served under that name, again and again.
    using Files = std::vector<std::pair<std::string, std::string>>;

    enum class Transport { Any, UdpOnly };

    // Starts the server; ends the test program if it doesn't answer. A `port` other than 0 is taken as it is.
    explicit RtspServer(Files files = {}, int port = 0, Transport transport = Transport::Any);

    std::string url(const std::string& name) const;
    int port() const { return port_; }

    // Ends the process at once: the kernel closes or resets its connections.
    void kill() { process_.kill(); }
    // Starts it again after a kill, under the same port; with other files.
    void start();
    void start(Files files);

    // Closes the connections of all clients, and serves on.
    void hangUp() { process_.signal(SIGUSR1); }

    // Waits until a client, one more than the calls before, has ended its session; false after `timeoutMs`.
    bool waitForTeardown(int timeoutMs) { return process_.readLine(timeoutMs) == "teardown"; }

    // Stops it and lets it go on: meanwhile its connections stay, and nothing comes.
    void suspend() { process_.suspend(); }
    void proceed() { process_.proceed(); }

private:
    Files files_;
    int port_;
    const Transport transport_;
    ChildProcess process_;
};

}  // namespace kelp::test
