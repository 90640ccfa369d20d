#include "input/answering_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>
#include <utility>

namespace kelp::test {

AnsweringServer::AnsweringServer(std::function<std::string(const std::string&)> answer)
    : answer_(std::move(answer)), socket_(socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (bind(socket_, reinterpret_cast<sockaddr*>(&address), length) != 0 || listen(socket_, 16) != 0 ||
        getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        throw std::runtime_error("no server");
    }
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] {
        while (!stop_) {
            pollfd waiting{socket_, POLLIN, 0};
            if (poll(&waiting, 1, 20) > 0) {
                serve(accept(socket_, nullptr, nullptr));
            }
        }
    });
}

AnsweringServer::~AnsweringServer() {
    stop_ = true;
    thread_.join();
    close(socket_);
}

void AnsweringServer::serve(int connection) {
    std::string request;
    char bytes[4096];
    ssize_t got = 0;
    while (request.find("\r\n\r\n") == std::string::npos && (got = recv(connection, bytes, sizeof(bytes), 0)) > 0) {
        request.append(bytes, static_cast<size_t>(got));
    }
    ++requests_;
    const std::string answer = answer_(request);
    size_t sent = 0;
    while (sent < answer.size() &&
           (got = send(connection, answer.data() + sent, answer.size() - sent, MSG_NOSIGNAL)) > 0) {
        sent += static_cast<size_t>(got);
    }
    close(connection);
}

std::string httpFile(const std::string& type, const std::string& bytes) {
    return "HTTP/1.1 200 OK\r\nContent-Type: " + type + "\r\nContent-Length: " + std::to_string(bytes.size()) +
           "\r\nConnection: close\r\n\r\n" + bytes;
}

std::string httpRedirect(const std::string& to) {
    return "HTTP/1.1 302 Found\r\nLocation: " + to + "\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
}

}  // namespace kelp::test
