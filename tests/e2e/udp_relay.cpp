#include "e2e/udp_relay.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "e2e/free_ports.h"

namespace kelp::test {

UdpRelay::UdpRelay() : thread_([this] { run(); }) {
}

UdpRelay::~UdpRelay() {
    stop_ = true;
    thread_.join();
    for (const Route& route : routes_) {
        close(route.socket);
    }
}

int UdpRelay::forward(int toPort) {
    Route route;
    route.toPort = toPort;
    route.socket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = loopbackAddress(0);
    socklen_t length = sizeof address;
    if (bind(route.socket, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        getsockname(route.socket, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        std::perror("udp relay");
        std::abort();
    }
    std::lock_guard lock(mutex_);
    routes_.push_back(std::move(route));
    return ntohs(address.sin_port);
}

void UdpRelay::trouble(int loseEvery, int swapEvery) {
    loseEvery_ = loseEvery;
    swapEvery_ = swapEvery;
}

void UdpRelay::run() {
    while (!stop_) {
        std::vector<pollfd> waiting;
        {
            std::lock_guard lock(mutex_);
            for (const Route& route : routes_) {
                waiting.push_back({route.socket, POLLIN, 0});
            }
        }
        if (poll(waiting.data(), waiting.size(), 20) <= 0) {
            continue;
        }
        std::lock_guard lock(mutex_);
        for (size_t i = 0; i < waiting.size(); ++i) {
            if (waiting[i].revents != 0) {
                relay(routes_[i]);
            }
        }
    }
}

void UdpRelay::relay(Route& route) {
    char data[65536];
    const ssize_t size = recv(route.socket, data, sizeof data, MSG_DONTWAIT);
    if (size < 0) {
        return;
    }
    const int number = ++route.count;
    const int loseEvery = loseEvery_;
    const int swapEvery = swapEvery_;
    if (loseEvery > 0 && number % loseEvery == 0) {
        ++lost_;
    } else if (swapEvery > 0 && number % swapEvery == 0 && route.held.empty()) {
        route.held.assign(data, data + size);
        ++swapped_;
    } else {
        send(route, data, static_cast<size_t>(size));
        if (!route.held.empty()) {
            send(route, route.held.data(), route.held.size());
            route.held.clear();
        }
    }
}

void UdpRelay::send(const Route& route, const char* data, size_t size) {
    const sockaddr_in to = loopbackAddress(route.toPort);
    // Nobody may listen yet, or any more: that is what datagrams are like.
    (void)sendto(route.socket, data, size, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
    ++passed_;
}

}  // namespace kelp::test
