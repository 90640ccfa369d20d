#pragma once

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

namespace kelp::test {

// A port of this machine, on which calls are taken and nobody says a word.
class DeafPort {
public:
    DeafPort() {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof(address);
        auto* const plain = reinterpret_cast<sockaddr*>(&address);
        isOpen_ = bind(socket_, plain, size) == 0 && listen(socket_, 4) == 0 && getsockname(socket_, plain, &size) == 0;
        number_ = ntohs(address.sin_port);
    }
    ~DeafPort() {
        close(caller_);
        close(socket_);
    }
    DeafPort(const DeafPort&) = delete;
    DeafPort& operator=(const DeafPort&) = delete;

    bool isOpen() const { return isOpen_; }
    std::string url(const std::string& file) const {
        return "http://127.0.0.1:" + std::to_string(number_) + "/" + file;
    }
    // By somebody who waits from then on. One call.
    bool wasCalled() {
        if (caller_ < 0) {
            caller_ = accept4(socket_, nullptr, nullptr, SOCK_NONBLOCK);
        }
        return caller_ >= 0;
    }

private:
    const int socket_ = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    int caller_ = -1;
    bool isOpen_ = false;
    int number_ = 0;
};

}  // namespace kelp::test
