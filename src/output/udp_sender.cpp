#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <utility>

#include "kelp_player/udp_transport.h"

namespace kelp {

constexpr int kSendBufferBytes = 524288;

bool UdpSender::startSender(std::string address, unsigned short port) {
    address_ = std::move(address);
    port_ = port;
    socket_ = socket(AF_INET, SOCK_DGRAM, 0);
    if (socket_ == -1) {
        return false;
    }
    if (setsockopt(socket_, SOL_SOCKET, SO_SNDBUF, &kSendBufferBytes, sizeof(kSendBufferBytes)) != 0) {
        perror("setsockopt(SO_SNDBUF)");
    }
    return true;
}

int UdpSender::send(const unsigned char* data, int size) {
    sockaddr_in destination = {};
    destination.sin_family = AF_INET;
    destination.sin_port = htons(port_);
    destination.sin_addr.s_addr = inet_addr(address_.c_str());
    return static_cast<int>(sendto(socket_, data, static_cast<size_t>(size), 0,
                                   reinterpret_cast<const sockaddr*>(&destination), sizeof(destination)));
}

void UdpSender::stopSender() {
    if (socket_ != -1) {
        close(socket_);
        socket_ = -1;
    }
}

}  // namespace kelp
