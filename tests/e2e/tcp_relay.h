#pragma once

#include <atomic>
#include <thread>

namespace kelp::test {

// Hands one connection at a time on to a port of the loopback address, and can let it stand: what comes meanwhile waits
// and is handed on in one go.
class TcpRelay {
public:
    // Hands on to `toPort`.
    explicit TcpRelay(int toPort);
    ~TcpRelay();
    TcpRelay(const TcpRelay&) = delete;
    TcpRelay& operator=(const TcpRelay&) = delete;

    // Where to connect to, chosen by the system.
    int port() const { return port_; }

    // Whether what the other side sends stands.
    void hold(bool held) { held_ = held; }

private:
    void run();
    void relay(int client);

    const int toPort_;
    int listener_ = -1;
    int port_ = 0;
    std::atomic<bool> held_{false};
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

}  // namespace kelp::test
