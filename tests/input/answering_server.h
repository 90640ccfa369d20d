#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <thread>

namespace kelp::test {

// A TCP server on the loopback address that reads one request from each connection, as HTTP and RTSP have them, writes
// what `answer` makes of it, and hangs up.
class AnsweringServer {
public:
    explicit AnsweringServer(std::function<std::string(const std::string& request)> answer);
    ~AnsweringServer();
    AnsweringServer(const AnsweringServer&) = delete;
    AnsweringServer& operator=(const AnsweringServer&) = delete;

    // "127.0.0.1:" and the port.
    std::string host() const { return "127.0.0.1:" + std::to_string(port_); }
    int requests() const { return requests_; }

private:
    void serve(int connection);

    const std::function<std::string(const std::string&)> answer_;
    int socket_ = -1;
    int port_ = 0;
    std::atomic<int> requests_{0};
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

// Answers of HTTP.
std::string httpFile(const std::string& type, const std::string& bytes);
std::string httpRedirect(const std::string& to);

}  // namespace kelp::test
