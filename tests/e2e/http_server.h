#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <list>
#include <mutex>
#include <string>
#include <thread>

namespace kelp::test {

// An HTTP server on the loopback address that has the files of one folder, from any byte on. It can be slow, lack a
// file, stand still at some byte of one, and drop the connection there.
class HttpServer {
public:
    // `path`: the film, with what belongs to it in the same folder.
    explicit HttpServer(const std::string& path);
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    std::string url() const;
    // Of the film.
    int64_t size() const { return size_; }

    // Which file of the folder is held and dropped; from the start it is the film. And which one isn't there.
    void setFaulty(const std::string& name) {
        std::lock_guard lock(mutex_);
        faulty_ = name;
    }
    void setMissing(const std::string& name) {
        std::lock_guard lock(mutex_);
        missing_ = name;
    }
    // Sends no byte at `position` or behind it, until `release`.
    void holdAt(int64_t position) { heldAt_ = position; }
    void release() { heldAt_ = kNever; }
    // Hangs up at this byte, once.
    void dropAt(int64_t position) { droppedAt_ = position; }
    // Of all connections together; 0 for as fast as can be.
    void setRate(int64_t bytesPerSecond) { rate_ = bytesPerSecond; }

    int requests() const { return requests_; }
    // Of the files, in all connections.
    int64_t sent() const { return sent_; }

private:
    static constexpr int64_t kNever = INT64_MAX;

    void run();
    void serve(int connection);
    bool answer(int connection, const std::string& request);
    // How many of `wanted` bytes may go now.
    int64_t allowed(int64_t wanted);

    const std::filesystem::path film_;
    const int64_t size_;
    int listener_ = -1;
    int port_ = 0;
    std::atomic<int64_t> heldAt_{kNever};
    std::atomic<int64_t> droppedAt_{kNever};
    std::atomic<int64_t> rate_{0};
    std::atomic<int> requests_{0};
    std::atomic<int64_t> sent_{0};
    std::atomic<bool> stop_{false};
    std::mutex mutex_;  // guards the next three
    std::string faulty_;
    std::string missing_;
    std::chrono::steady_clock::time_point freeAt_;  // when what was sent has gone at the rate
    std::list<std::thread> connections_;            // run's
    std::thread thread_;
};

}  // namespace kelp::test
