#include "output/socket_calls.h"

#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>

namespace kelp::test {

SocketCalls& socketCalls() {
    static SocketCalls calls;
    return calls;
}

void resetSocketCalls() {
    std::lock_guard lock(socketCalls().mutex);
    socketCalls().names.clear();
    socketCalls().failing.clear();
}

void failSocketCall(const std::string& call) {
    std::lock_guard lock(socketCalls().mutex);
    socketCalls().failing.insert(call);
}

std::vector<std::string> socketCallNames() {
    std::lock_guard lock(socketCalls().mutex);
    return socketCalls().names;
}

namespace {

bool isFailing(const std::string& call) {
    std::lock_guard lock(socketCalls().mutex);
    return socketCalls().failing.count(call) > 0;
}

// Notes the call; whether it is to fail, and with which error.
bool refuses(const std::string& call) {
    {
        std::lock_guard lock(socketCalls().mutex);
        socketCalls().names.push_back(call);
    }
    errno = EACCES;
    return isFailing(call);
}

std::string option(const char* name, int level, int key) {
    return std::string(name) + (level == SOL_SOCKET ? " " : " level? ") + std::to_string(key);
}

}  // namespace
}  // namespace kelp::test

using kelp::test::isFailing;
using kelp::test::option;
using kelp::test::refuses;
using kelp::test::socketCalls;

extern "C" {

int __real_socket(int domain, int type, int protocol);
int __wrap_socket(int domain, int type, int protocol) {
    if (refuses("socket " + std::to_string(domain) + " " + std::to_string(type) + " " + std::to_string(protocol))) {
        return -1;
    }
    return socketCalls().lastSocket = __real_socket(domain, type, protocol);
}

int __real_setsockopt(int socket, int level, int key, const void* value, socklen_t length);
int __wrap_setsockopt(int socket, int level, int key, const void* value, socklen_t length) {
    std::string text = "?";
    if (length == sizeof(int)) {
        text = std::to_string(*static_cast<const int*>(value));
    } else if (length == sizeof(timeval)) {
        const auto* time = static_cast<const timeval*>(value);
        text = std::to_string(time->tv_sec) + "s" + std::to_string(time->tv_usec) + "us";
    }
    if (refuses(option("setsockopt", level, key) + " " + text)) {
        return -1;
    }
    return __real_setsockopt(socket, level, key, value, length);
}

int __real_getsockopt(int socket, int level, int key, void* value, socklen_t* length);
int __wrap_getsockopt(int socket, int level, int key, void* value, socklen_t* length) {
    return refuses(option("getsockopt", level, key)) ? -1 : __real_getsockopt(socket, level, key, value, length);
}

int __real_bind(int socket, const sockaddr* address, socklen_t length);
int __wrap_bind(int socket, const sockaddr* address, socklen_t length) {
    return refuses("bind") ? -1 : __real_bind(socket, address, length);
}

int __real_ioctl(int file, unsigned long request, void* value);
int __wrap_ioctl(int file, unsigned long request, void* value) {
    if (refuses(request == FIONBIO ? "ioctl FIONBIO " + std::to_string(*static_cast<int*>(value)) : "ioctl ?")) {
        return -1;
    }
    return __real_ioctl(file, request, value);
}

ssize_t __real_recvfrom(int socket, void* buffer, size_t size, int flags, sockaddr* from, socklen_t* length);
ssize_t __wrap_recvfrom(int socket, void* buffer, size_t size, int flags, sockaddr* from, socklen_t* length) {
    if (isFailing("recvfrom")) {
        return -1;
    }
    return __real_recvfrom(socket, buffer, size, flags, from, length);
}
}
