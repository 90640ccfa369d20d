#include "udp_bench.h"

#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "kelp_player/udp_transport.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kDatagramBytes = 1316;  // seven packets of a transport stream
constexpr double kWantedMbits = 200;
constexpr double kSeconds = 2;
constexpr double kBurstSeconds = 0.001;  // the sender sleeps between bursts

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

class Counter : public kelp::UdpReceiverObserver {
public:
    void onUdpData(const unsigned char* data, int size) override {
        uint32_t number = 0;
        std::memcpy(&number, data, sizeof number);
        inOrder_ = inOrder_ && size == kDatagramBytes && number >= next_;
        next_ = number + 1;
        received_.fetch_add(1, std::memory_order_relaxed);
    }
    int64_t received() const { return received_.load(std::memory_order_relaxed); }
    // Once the receiver was stopped.
    bool inOrder() const { return inOrder_; }

private:
    std::atomic<int64_t> received_{0};
    uint32_t next_ = 0;
    bool inOrder_ = true;
};

#pragma GCC diagnostic pop

struct Outcome {
    double mbits = 0;  // as sent
    int64_t sent = 0;
    int64_t received = 0;
    double seconds = 0;          // from the first datagram to the last
    double senderSeconds = 0;    // of a processor
    double receiverSeconds = 0;  // of a processor
};

double cpuSeconds(int who) {
    rusage usage{};
    getrusage(who, &usage);
    const auto seconds = [](const timeval& time) { return static_cast<double>(time.tv_sec) + time.tv_usec / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

double secondsSince(Clock::time_point begin) {
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

// A port that is free now.
unsigned short freePort() {
    const int made = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    socklen_t length = sizeof address;
    if (bind(made, reinterpret_cast<const sockaddr*>(&address), length) != 0 ||
        getsockname(made, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        address.sin_port = 0;
    }
    close(made);
    return ntohs(address.sin_port);
}

// Sends for kSeconds at `mbits`, as fast as it goes if that is 0.
bool carry(double mbits, Outcome& outcome) {
    Counter counter;
    kelp::UdpReceiver* receiver = kelp::UdpReceiver::create();
    receiver->init(&counter);
    const unsigned short port = freePort();
    kelp::UdpSender sender;
    if (!receiver->startReceiver(port) || !sender.startSender("127.0.0.1", port)) {
        kelp::UdpReceiver::destroy(receiver);
        return false;
    }
    std::vector<unsigned char> datagram(kDatagramBytes, 0xa5);
    const double perSecond = mbits * 1e6 / 8 / kDatagramBytes;
    const double senderBefore = cpuSeconds(RUSAGE_THREAD);
    const double allBefore = cpuSeconds(RUSAGE_SELF);
    const auto begin = Clock::now();
    for (double elapsed = 0; elapsed < kSeconds; elapsed = secondsSince(begin)) {
        const auto due = mbits > 0 ? static_cast<int64_t>(perSecond * (elapsed + kBurstSeconds)) : outcome.sent + 100;
        while (outcome.sent < due) {
            const auto number = static_cast<uint32_t>(outcome.sent);
            std::memcpy(datagram.data(), &number, sizeof number);
            outcome.sent += sender.send(datagram.data(), kDatagramBytes) == kDatagramBytes;
        }
        if (mbits > 0) {
            std::this_thread::sleep_for(std::chrono::duration<double>(kBurstSeconds));
        }
    }
    outcome.seconds = secondsSince(begin);
    outcome.senderSeconds = cpuSeconds(RUSAGE_THREAD) - senderBefore;
    // What still waits in the system's buffer is read; after a while without anything the rest is lost.
    int64_t seen = -1;
    while (seen != counter.received()) {
        seen = counter.received();
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    outcome.receiverSeconds = cpuSeconds(RUSAGE_SELF) - allBefore - (cpuSeconds(RUSAGE_THREAD) - senderBefore);
    sender.stopSender();
    receiver->stopReceiver();
    kelp::UdpReceiver::destroy(receiver);
    outcome.received = counter.received();
    outcome.mbits = static_cast<double>(outcome.sent) * kDatagramBytes * 8e-6 / outcome.seconds;
    return counter.inOrder();
}

void print(const std::string& name, const Outcome& outcome) {
    const double gigabits = static_cast<double>(outcome.received) * kDatagramBytes * 8e-9;
    std::printf("| %-28s | %6.0f | %11.0f | %9lld | %6lld | %17.2f | %19.2f |\n", name.c_str(), outcome.mbits,
                static_cast<double>(outcome.received) / outcome.seconds, static_cast<long long>(outcome.received),
                static_cast<long long>(outcome.sent - outcome.received), outcome.senderSeconds / gigabits,
                outcome.receiverSeconds / gigabits);
}

}  // namespace

bool udpBench() {
    Outcome wanted;
    Outcome best;
    bool ok = carry(kWantedMbits, wanted);
    // The highest rate at which nothing is lost, in steps of a fifth.
    for (double mbits = 2 * kWantedMbits; ok; mbits *= 1.2) {
        Outcome outcome;
        ok = carry(mbits, outcome);
        // A sender that can't keep up has shown what it can.
        if (!ok || outcome.received < outcome.sent || outcome.mbits < 0.95 * mbits) {
            break;
        }
        best = outcome;
    }
    Outcome full;
    ok = ok && carry(0, full);
    std::printf("\n| %-28s | Mbit/s | datagrams/s |  received |   lost | sender CPU s/Gbit | receiver CPU s/Gbit |\n",
                "datagrams of 1316 bytes");
    std::printf("| %-28s | -----: | ----------: | --------: | -----: | ----------------: | ------------------: |\n",
                "---");
    print("at 200 Mbit/s", wanted);
    print("most with nothing lost", best);
    print("as fast as it goes", full);
    return ok;
}
