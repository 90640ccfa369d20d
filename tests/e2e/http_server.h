#pragma once

#include <atomic>
#include <cstdint>
#include <list>
#include <mutex>
#include <string>
#include <thread>

namespace kelp::test {

// An HTTP server on the loopback address that has one file, whatever it is asked for, from any byte on. It can be slow,
// stand still at some byte, and drop the connection there.
class HttpServer {
public:
    explicit HttpServer(const std::string& path);
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    std::string url() const;
    int64_t size() const { return static_cast<int64_t>(file_.size()); }

    // Sends no byte at `position` or behind it, until `release`.
    void holdAt(int64_t position) { heldAt_ = position; }
    void release() { heldAt_ = kNever; }
    // Hangs up at this byte, once.
    void dropAt(int64_t position) { droppedAt_ = position; }
    // For each connection; 0 for as fast as can be.
    void setRate(int64_t bytesPerSecond) { rate_ = bytesPerSecond; }

    int requests() const { return requests_; }
    // Of the file, in all connections.
    int64_t sent() const { return sent_; }

private:
    static constexpr int64_t kNever = INT64_MAX;

    void run();
    void serve(int connection);
    bool answer(int connection, const std::string& request);

    std::string file_;
    int listener_ = -1;
    int port_ = 0;
    std::atomic<int64_t> heldAt_{kNever};
    std::atomic<int64_t> droppedAt_{kNever};
    std::atomic<int64_t> rate_{0};
    std::atomic<int> requests_{0};
    std::atomic<int64_t> sent_{0};
    std::atomic<bool> stop_{false};
    std::list<std::thread> connections_;  // run's
    std::thread thread_;
};

}  // namespace kelp::test
