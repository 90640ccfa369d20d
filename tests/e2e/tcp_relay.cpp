#include "e2e/tcp_relay.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

#include "e2e/free_ports.h"

namespace kelp::test {

namespace {

constexpr int kLookMs = 5;

[[noreturn]] void giveUp() {
    std::perror("tcp relay");
    std::abort();
}

// What there is to read at `from`, into `waiting`; false at its end.
bool take(int from, std::vector<char>& waiting) {
    char bytes[65536];
    const ssize_t size = recv(from, bytes, sizeof bytes, MSG_DONTWAIT);
    if (size > 0) {
        waiting.insert(waiting.end(), bytes, bytes + size);
    }
    return size != 0;
}

bool give(int to, std::vector<char>& waiting) {
    size_t sent = 0;
    while (sent < waiting.size()) {
        const ssize_t size = send(to, waiting.data() + sent, waiting.size() - sent, MSG_NOSIGNAL);
        if (size < 0) {
            return false;
        }
        sent += static_cast<size_t>(size);
    }
    waiting.clear();
    return true;
}

}  // namespace

TcpRelay::TcpRelay(int toPort) : toPort_(toPort), listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address = loopbackAddress(0);
    socklen_t size = sizeof address;
    if (bind(listener_, reinterpret_cast<sockaddr*>(&address), size) != 0 || listen(listener_, 1) != 0 ||
        getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        giveUp();
    }
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { run(); });
}

TcpRelay::~TcpRelay() {
    stop_ = true;
    thread_.join();
    close(listener_);
}

void TcpRelay::run() {
    while (!stop_) {
        pollfd poller{listener_, POLLIN, 0};
        if (poll(&poller, 1, kLookMs) == 1) {
            const int client = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            relay(client);
            close(client);
        }
    }
}

void TcpRelay::relay(int client) {
    const int server = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = loopbackAddress(toPort_);
    if (connect(server, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        giveUp();
    }
    for (const int end : {client, server}) {
        constexpr int kAtOnce = 1;
        setsockopt(end, IPPROTO_TCP, TCP_NODELAY, &kAtOnce, sizeof kAtOnce);
    }
    std::vector<char> upwards;
    std::vector<char> downwards;
    bool isOpen = true;
    while (isOpen && !stop_) {
        pollfd pollers[] = {{client, POLLIN, 0}, {server, POLLIN, 0}};
        poll(pollers, 2, kLookMs);
        isOpen = (pollers[0].revents == 0 || take(client, upwards)) &&
                 (pollers[1].revents == 0 || take(server, downwards)) && give(server, upwards) &&
                 (held_ || give(client, downwards));
    }
    close(server);
}

}  // namespace kelp::test
