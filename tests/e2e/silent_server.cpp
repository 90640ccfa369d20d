#include "e2e/silent_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace kelp::test {

SilentServer::SilentServer() : socket_(socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (bind(socket_, reinterpret_cast<sockaddr*>(&address), length) != 0 || listen(socket_, 64) != 0 ||
        getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        std::perror("silent server");
        std::abort();
    }
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] {
        while (!stop_) {
            pollfd waiting{socket_, POLLIN, 0};
            if (poll(&waiting, 1, 20) > 0) {
                connections_.push_back(accept(socket_, nullptr, nullptr));
                ++accepted_;
            }
        }
    });
}

SilentServer::~SilentServer() {
    stop_ = true;
    thread_.join();
    for (const int connection : connections_) {
        close(connection);
    }
    close(socket_);
}

std::string SilentServer::url() const {
    return "rtsp://127.0.0.1:" + std::to_string(port_) + "/silent";
}

}  // namespace kelp::test
