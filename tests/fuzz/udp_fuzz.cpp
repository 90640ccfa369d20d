// The receiver under datagrams of any size: those of up to 2000 bytes arrive whole and in order, the others not at all.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <vector>

#include "fuzz/fuzz_target.h"
#include "fuzz/quiet.h"
#include "kelp_player/udp_transport.h"
#include "support/private_member.h"

namespace kelp::test {
using ReceiverSocket = std::atomic<int> UdpReceiver::*;
ReceiverSocket privateMember(PrivateMember<struct ReceiverSocketTag, ReceiverSocket>);
template struct ExposeMember<struct ReceiverSocketTag, &UdpReceiver::socket_>;
}  // namespace kelp::test

using kelp::UdpReceiver;
using kelp::test::FuzzInput;
using kelp::test::require;

namespace {

constexpr size_t kMaxDatagrams = 12;  // of one run: the system's buffer holds them
constexpr size_t kMaxBytes = 2000;

using Datagram = std::vector<unsigned char>;

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

class Observer final : public kelp::UdpReceiverObserver {
public:
    void onUdpData(const unsigned char* data, int size) override {
        std::lock_guard lock(mutex_);
        received_.emplace_back(data, data + size);
        changed_.notify_all();
    }

    std::vector<Datagram> take(size_t count) {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return received_.size() >= count; });
        return std::move(received_);
    }

private:
    std::mutex mutex_;  // guards received_
    std::condition_variable changed_;
    std::vector<Datagram> received_;
};

#pragma GCC diagnostic pop

// One receiver for all runs, started anew now and then.
class Receiver {
public:
    Receiver() : receiver_(UdpReceiver::create()), sender_(socket(AF_INET, SOCK_DGRAM, 0)) {
        // The receiver tells its buffer's size there with each start.
        require(std::freopen("/dev/null", "w", stdout) != nullptr, "somewhere to write to");
        receiver_->init(&observer_);
        start();
    }
    Receiver(const Receiver&) = delete;
    Receiver& operator=(const Receiver&) = delete;
    ~Receiver() {
        receiver_->stopReceiver();
        UdpReceiver::destroy(receiver_);
        close(sender_);
    }

    void restart() {
        receiver_->stopReceiver();
        start();
    }

    void send(const Datagram& datagram) {
        const ssize_t sent = sendto(sender_, datagram.data(), datagram.size(), 0,
                                    reinterpret_cast<const sockaddr*>(&address_), sizeof(address_));
        require(sent == static_cast<ssize_t>(datagram.size()), "the datagram is sent");
    }

    std::vector<Datagram> take(size_t count) { return observer_.take(count); }

private:
    void start() {
        // Port 0: the system chooses a free one.
        require(receiver_->startReceiver(0) && receiver_->startReceiver(0), "the receiver starts");
        const auto member = privateMember(
            kelp::test::PrivateMember<struct kelp::test::ReceiverSocketTag, kelp::test::ReceiverSocket>{});
        socklen_t length = sizeof(address_);
        getsockname(receiver_->*member, reinterpret_cast<sockaddr*>(&address_), &length);
        address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    }

    Observer observer_;
    UdpReceiver* receiver_;
    int sender_;
    sockaddr_in address_ = {};
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    kelp::test::quiet();
    static Receiver receiver;
    FuzzInput input(data, size);
    if (input.byte() == 0) {
        receiver.restart();
    }
    std::vector<Datagram> expected;
    for (size_t i = 0; i < kMaxDatagrams && !input.empty(); ++i) {
        Datagram datagram(input.take<uint16_t>() % (kMaxBytes + 200));
        // Its first bytes come from the input, the others are zero.
        input.take(datagram.data(), std::min<size_t>(datagram.size(), 64));
        receiver.send(datagram);
        if (datagram.size() <= kMaxBytes) {
            expected.push_back(datagram);
        }
    }
    // A last one shows that those before it are through.
    expected.push_back({'e', 'n', 'd'});
    receiver.send(expected.back());
    require(receiver.take(expected.size()) == expected, "the datagrams arrive as they were sent");
    return 0;
}
