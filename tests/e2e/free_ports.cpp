#include "e2e/free_ports.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace kelp::test {

namespace {

constexpr int kFirstPort = 20000;
constexpr int kPairs = 6000;  // up to 32000; the system's own choice starts at 32768

// The name of a socket that has no file is everybody's, and free again as soon as its process ends.
bool reserve(int port) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const std::string name = "kelp-test-port-" + std::to_string(port);
    name.copy(address.sun_path + 1, name.size());
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    const int holder = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (bind(holder, reinterpret_cast<const sockaddr*>(&address), length) == 0) {
        return true;  // the descriptor stays open for as long as the process lives
    }
    close(holder);
    return false;
}

bool isFree(int socketType, int port) {
    const int probe = socket(AF_INET, socketType | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    const bool bound = bind(probe, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    close(probe);
    return bound;
}

}  // namespace

int freePortPair(int socketType) {
    // Processes that start side by side begin at different places.
    for (int i = 0; i < kPairs; ++i) {
        const int port = kFirstPort + 2 * ((getpid() * 7 + i) % kPairs);
        if (reserve(port) && isFree(socketType, port) && isFree(socketType, port + 1)) {
            return port;
        }
    }
    std::fprintf(stderr, "no two free ports in a row\n");
    std::abort();
}

sockaddr_in loopbackAddress(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    return address;
}

}  // namespace kelp::test
