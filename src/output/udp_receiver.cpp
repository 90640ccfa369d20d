#include <fcntl.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

#include "kelp_player/log.h"
#include "kelp_player/udp_transport.h"
#include "runtime/rest.h"

namespace kelp {

namespace {

constexpr char kTag[] = "UdpReceiver";

constexpr int kWantedReceiveBufferBytes = 400000000;
constexpr int kReceiveBufferBytes = 26214400;
constexpr suseconds_t kReceiveTimeoutUs = 20000;
constexpr int kMaxDatagramBytes = 2000;
constexpr int kIdleMs = 10;

// Sets the options and takes the port. The reason for a failure goes to standard error.
bool configure(int socket, unsigned short port) {
    const int reuse = 1;
    if (setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof(reuse)) != 0) {
        perror("reuseaddr");
        return false;
    }

    if (setsockopt(socket, SOL_SOCKET, SO_RCVBUF, &kWantedReceiveBufferBytes, sizeof(kWantedReceiveBufferBytes)) != 0) {
        perror("setsockopt(SO_RCVBUF)");
    }
    int bufferBytes = -1;
    socklen_t length = sizeof(bufferBytes);
    if (getsockopt(socket, SOL_SOCKET, SO_RCVBUF, &bufferBytes, &length) != 0) {
        printf("getsockopt(SO_RCVBUF) error=%d (%s)!!!\n", errno, strerror(errno));
    }
    printf("OS current udp socket recv buff size is: %d\n", bufferBytes);

    const timeval timeout = {0, kReceiveTimeoutUs};
    setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));

    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    if (bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        perror("bind");
        return false;
    }

    int nonBlocking = 1;
    if (ioctl(socket, FIONBIO, &nonBlocking) != 0) {
        perror("non-block");
    }
    setsockopt(socket, SOL_SOCKET, SO_RCVBUF, &kReceiveBufferBytes, sizeof(kReceiveBufferBytes));
    return true;
}

// Closes the socket but keeps its number taken: a thread that still holds the number gets an error from it, and not
// somebody else's file. The number stays for close(). Without a descriptor to spare the socket itself stays until then.
void closeKeepingNumber(int socket) {
    const int placeholder = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (placeholder != -1) {
        dup2(placeholder, socket);
        close(placeholder);
    }
}

}  // namespace

UdpReceiver* UdpReceiver::create() {
    return new (std::nothrow) UdpReceiver;
}

void UdpReceiver::destroy(UdpReceiver* receiver) {
    delete receiver;
}

UdpReceiver::~UdpReceiver() {
    if (socket_ != -1) {
        close(socket_);
    }
}

bool UdpReceiver::init(UdpReceiverObserver* observer) {
    observer_ = observer;
    return true;
}

bool UdpReceiver::startReceiver(unsigned short port) {
    if (started_) {
        return true;
    }
    // A start that failed has left its socket.
    if (socket_ != -1) {
        close(socket_);
    }
    socket_ = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    if (socket_ == -1 || !configure(socket_, port)) {
        return false;
    }
    rest_ = std::make_shared<Rest>();
    thread_ = std::make_shared<std::thread>([this] { receiveRun(); });
    started_ = true;
    return true;
}

void UdpReceiver::stopReceiver() {
    stopRequested_ = true;
    const int socket = socket_.exchange(-1);
    if (socket != -1) {
        closeKeepingNumber(socket);
    }
    if (thread_) {
        rest_->end();
        thread_->join();
        thread_.reset();
    }
    if (socket != -1) {
        close(socket);
    }
    stopRequested_ = false;
    started_ = false;
}

void UdpReceiver::receiveRun() {
    Log::Debug(kTag, "%s ...\n", "receiveRun");
    unsigned char buffer[kMaxDatagramBytes];
    while (!stopRequested_) {
        sockaddr_in source = {};
        socklen_t sourceLength = sizeof(source);
        // With MSG_TRUNC the result is the datagram's own length, so one that was cut shows itself.
        const ssize_t size =
            recvfrom(socket_, buffer, sizeof(buffer), MSG_TRUNC, reinterpret_cast<sockaddr*>(&source), &sourceLength);
        if (size < 0 || size > kMaxDatagramBytes) {
            rest_->forMs(kIdleMs, [this] { return stopRequested_.load(); });
        } else if (observer_) {
            observer_->onUdpData(buffer, static_cast<int>(size));
        }
    }
    Log::Debug(kTag, "%s exit ...\n", "receiveRun");
}

}  // namespace kelp
