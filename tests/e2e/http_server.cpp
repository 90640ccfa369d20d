#include "e2e/http_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace kelp::test {

namespace {

constexpr int kStepMs = 10;
constexpr int64_t kMostAtOnce = 64 << 10;
constexpr std::chrono::milliseconds kLateAtMost{100};  // behind the rate, to be made up for

}  // namespace

HttpServer::HttpServer(const std::string& path)
    : film_(path),
      size_(static_cast<int64_t>(std::filesystem::file_size(film_))),
      listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)),
      faulty_(film_.filename()) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (bind(listener_, reinterpret_cast<sockaddr*>(&address), length) != 0 || listen(listener_, 16) != 0 ||
        getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        throw std::runtime_error("no server for " + path);
    }
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { run(); });
}

HttpServer::~HttpServer() {
    stop_ = true;
    thread_.join();
    close(listener_);
}

std::string HttpServer::url() const {
    return "http://127.0.0.1:" + std::to_string(port_) + "/" + film_.filename().string();
}

void HttpServer::run() {
    while (!stop_) {
        pollfd waiting{listener_, POLLIN, 0};
        if (poll(&waiting, 1, kStepMs) > 0) {
            const int connection = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            connections_.emplace_back([this, connection] {
                serve(connection);
                close(connection);
            });
        }
    }
    for (auto& thread : connections_) {
        thread.join();
    }
}

void HttpServer::serve(int connection) {
    std::string request;
    while (!stop_) {
        pollfd waiting{connection, POLLIN, 0};
        if (poll(&waiting, 1, kStepMs) <= 0) {
            continue;
        }
        char bytes[4096];
        const ssize_t got = recv(connection, bytes, sizeof bytes, 0);
        if (got <= 0) {
            return;
        }
        request.append(bytes, static_cast<size_t>(got));
        if (request.find("\r\n\r\n") != std::string::npos) {
            answer(connection, request);
            return;
        }
    }
}

int64_t HttpServer::allowed(int64_t wanted) {
    const int64_t rate = rate_;
    if (rate == 0) {
        return wanted;
    }
    std::lock_guard lock(mutex_);
    const auto now = std::chrono::steady_clock::now();
    if (now < freeAt_) {
        return 0;
    }
    const int64_t some = std::min(wanted, rate * kStepMs / 1000 + 1);
    freeAt_ = std::max(freeAt_, now - kLateAtMost) + std::chrono::microseconds(some * 1'000'000 / rate);
    return some;
}

// Whether all was sent.
bool HttpServer::answer(int connection, const std::string& request) {
    ++requests_;
    const size_t nameAt = request.find('/') + 1;
    const std::string name = request.substr(nameAt, request.find(' ', nameAt) - nameAt);
    std::ifstream in(film_.parent_path() / name, std::ios::binary);
    bool isMissing = !in;
    bool isFaulty = false;
    {
        std::lock_guard lock(mutex_);
        isMissing = isMissing || name == missing_;
        isFaulty = name == faulty_;
    }
    if (isMissing) {
        const std::string none = "HTTP/1.1 404 Not Found\r\nConnection: close\r\nContent-Length: 0\r\n\r\n";
        return send(connection, none.data(), none.size(), MSG_NOSIGNAL) > 0;
    }
    const std::string file(std::istreambuf_iterator<char>(in), {});
    const auto size = static_cast<int64_t>(file.size());
    const size_t range = request.find("Range: bytes=");
    int64_t position = range == std::string::npos ? 0 : std::atoll(request.c_str() + range + 13);
    position = std::clamp<int64_t>(position, 0, size);
    const std::string head =
        "HTTP/1.1 206 Partial Content\r\nAccept-Ranges: bytes\r\nConnection: close\r\n"
        "Content-Type: application/octet-stream\r\nContent-Length: " +
        std::to_string(size - position) + "\r\nContent-Range: bytes " + std::to_string(position) + "-" +
        std::to_string(size - 1) + "/" + std::to_string(size) + "\r\n\r\n";
    if (send(connection, head.data(), head.size(), MSG_NOSIGNAL) < 0) {
        return false;
    }
    while (position < size && !stop_) {
        int64_t end = std::min(size, position + kMostAtOnce);
        if (isFaulty) {
            if (position >= droppedAt_) {
                droppedAt_ = kNever;
                return false;
            }
            end = std::min({end, heldAt_.load(), droppedAt_.load()});
        }
        pollfd writable{connection, POLLOUT, 0};
        const bool isWritable = end > position && poll(&writable, 1, kStepMs) > 0;
        const int64_t some = isWritable ? allowed(end - position) : 0;
        if (some <= 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(kStepMs));
            continue;
        }
        const ssize_t put =
            send(connection, file.data() + position, static_cast<size_t>(some), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (put <= 0) {
            return false;
        }
        position += put;
        sent_ += put;
    }
    return true;
}

}  // namespace kelp::test
