#pragma once

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace kelp::test {

// A TCP server on the loopback address that accepts every connection and says nothing.
class SilentServer {
public:
    SilentServer();
    ~SilentServer();
    SilentServer(const SilentServer&) = delete;
    SilentServer& operator=(const SilentServer&) = delete;

    // An address that opens only if the server answers.
    std::string url() const;
    // Connections so far.
    int accepted() const { return accepted_; }

private:
    int socket_ = -1;
    int port_ = 0;
    std::atomic<bool> stop_{false};
    std::atomic<int> accepted_{0};
    std::vector<int> connections_;  // touched by the thread only
    std::thread thread_;
};

}  // namespace kelp::test
