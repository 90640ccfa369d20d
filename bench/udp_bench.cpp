#include "udp_bench.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <memory>
#include <thread>

#include "child.h"
#include "kelp_player/udp_transport.h"
#include "measures.h"

namespace kelp::bench {

namespace {

constexpr int kDatagramBytes = 1316;  // seven packets of a transport stream
constexpr double kWantedMbits = 200;
constexpr double kBurstSeconds = 0.001;  // the sender sleeps between bursts

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

class Counter : public UdpReceiverObserver {
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

sockaddr_in loopback(unsigned short port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

unsigned short portOf(int socket) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    return getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length) == 0 ? ntohs(address.sin_port) : 0;
}

bool bindTo(int socket, unsigned short port) {
    const sockaddr_in address = loopback(port);
    return bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

// A port that is free now.
unsigned short freePort() {
    const int made = socket(AF_INET, SOCK_DGRAM, 0);
    const unsigned short port = bindTo(made, 0) ? portOf(made) : 0;
    close(made);
    return port;
}

// A sender and a receiver that tells `Counter` of what comes.
class Link {
public:
    virtual ~Link() = default;
    virtual bool open(Counter& counter) = 0;
    virtual bool send(const std::vector<unsigned char>& datagram) = 0;
    virtual void close() = 0;
};

class KelpLink final : public Link {
public:
    ~KelpLink() override { UdpReceiver::destroy(receiver_); }
    bool open(Counter& counter) override {
        const unsigned short port = freePort();
        receiver_->init(&counter);
        return receiver_->startReceiver(port) && sender_.startSender("127.0.0.1", port);
    }
    bool send(const std::vector<unsigned char>& datagram) override {
        return sender_.send(datagram.data(), kDatagramBytes) == kDatagramBytes;
    }
    void close() override {
        sender_.stopSender();
        receiver_->stopReceiver();
    }

private:
    UdpReceiver* const receiver_ = UdpReceiver::create();
    UdpSender sender_;
};

// What the system can do: a thread that waits in recv.
class BareLink final : public Link {
public:
    ~BareLink() override { BareLink::close(); }
    bool open(Counter& counter) override {
        constexpr int kBufferBytes = 26214400;  // the receiver's
        constexpr timeval kPatience{0, 20000};
        setsockopt(receiver_, SOL_SOCKET, SO_RCVBUF, &kBufferBytes, sizeof kBufferBytes);
        setsockopt(receiver_, SOL_SOCKET, SO_RCVTIMEO, &kPatience, sizeof kPatience);
        if (!bindTo(receiver_, 0)) {
            return false;
        }
        const sockaddr_in address = loopback(portOf(receiver_));
        thread_ = std::thread([this, &counter] { receive(counter); });
        return connect(sender_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    }
    bool send(const std::vector<unsigned char>& datagram) override {
        return ::send(sender_, datagram.data(), datagram.size(), 0) == kDatagramBytes;
    }
    void close() override {
        stop_ = true;
        if (thread_.joinable()) {
            thread_.join();
            ::close(receiver_);
            ::close(sender_);
        }
    }

private:
    void receive(Counter& counter) {
        unsigned char buffer[kDatagramBytes];
        while (!stop_) {
            const ssize_t size = recv(receiver_, buffer, sizeof buffer, 0);
            if (size > 0) {
                counter.onUdpData(buffer, static_cast<int>(size));
            }
        }
    }

    const int receiver_ = socket(AF_INET, SOCK_DGRAM, 0);
    const int sender_ = socket(AF_INET, SOCK_DGRAM, 0);
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

// What one rate came to.
struct Outcome {
    bool ok = false;
    double mbits = 0;  // as sent
    double sent = 0;
    double received = 0;
    double senderSeconds = 0;    // of a processor, for a Gbit
    double receiverSeconds = 0;  // of a processor, for a Gbit
};

Outcome carry(const char* who, double mbits, double seconds) {
    const ChildResult result = runRow({"udp", who, std::to_string(mbits), std::to_string(seconds)});
    const Facts& facts = result.facts;
    const double gigabits = facts.number("received") * kDatagramBytes * 8e-9;
    if (!result.ok || gigabits <= 0) {
        return {};
    }
    return {true,
            facts.number("sent") * kDatagramBytes * 8e-6 / facts.number("seconds"),
            facts.number("sent"),
            facts.number("received"),
            facts.number("sender_cpu_s") / gigabits,
            facts.number("receiver_cpu_s") / gigabits};
}

// The highest rate at which nothing is lost, in steps of a fifth.
Outcome mostWithoutLoss(const char* who, double seconds) {
    Outcome best;
    for (double mbits = 2 * kWantedMbits;; mbits *= 1.2) {
        const Outcome outcome = carry(who, mbits, seconds);
        // A sender that can't keep up has shown what it can.
        if (!outcome.ok || outcome.received < outcome.sent || outcome.mbits < 0.95 * mbits) {
            return best;
        }
        best = outcome;
    }
}

}  // namespace

bool udpRow(const std::vector<std::string>& words, Facts& facts) {
    if (words.size() != 3) {
        return false;
    }
    const double mbits = std::stod(words[1]);
    const double seconds = std::stod(words[2]);
    std::unique_ptr<Link> link;
    if (words[0] == "kelp") {
        link = std::make_unique<KelpLink>();
    } else {
        link = std::make_unique<BareLink>();
    }
    Counter counter;
    if (!link->open(counter)) {
        return false;
    }
    std::vector<unsigned char> datagram(kDatagramBytes, 0xa5);
    int64_t sent = 0;
    const double perSecond = mbits * 1e6 / 8 / kDatagramBytes;
    const double senderBefore = cpuSeconds(RUSAGE_THREAD);
    const double allBefore = cpuSeconds(RUSAGE_SELF);
    const double begin = nowMs();
    double elapsed = 0;
    for (; elapsed < seconds; elapsed = (nowMs() - begin) / 1000) {
        const auto due = mbits > 0 ? static_cast<int64_t>(perSecond * (elapsed + kBurstSeconds)) : sent + 100;
        while (sent < due) {
            const auto number = static_cast<uint32_t>(sent);
            std::memcpy(datagram.data(), &number, sizeof number);
            sent += link->send(datagram);
        }
        if (mbits > 0) {
            std::this_thread::sleep_for(std::chrono::duration<double>(kBurstSeconds));
        }
    }
    const double senderCpu = cpuSeconds(RUSAGE_THREAD) - senderBefore;
    // What still waits in the system's buffer is read; after a while without anything the rest is lost.
    int64_t seen = -1;
    while (seen != counter.received()) {
        seen = counter.received();
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    facts.set("receiver_cpu_s", cpuSeconds(RUSAGE_SELF) - allBefore - (cpuSeconds(RUSAGE_THREAD) - senderBefore));
    link->close();
    facts.set("sender_cpu_s", senderCpu);
    facts.set("seconds", elapsed);
    facts.set("sent", static_cast<double>(sent));
    facts.set("received", static_cast<double>(counter.received()));
    return counter.inOrder();
}

bool measureUdp(const Settings& settings, Report& report) {
    const double seconds = settings.choose(2.0, 1.0, 0.2);
    Table table("udp", "Datagrams of 1316 bytes over the loopback address",
                {{"what", "what"},
                 {"mbits", "Mbit/s", 0},
                 {"limit_mbits", "limit Mbit/s", 0},
                 {"received", "received", 0},
                 {"lost", "lost", 0},
                 {"sender_cpu", "sender CPU s/Gbit", 2},
                 {"limit_sender_cpu", "limit", 2},
                 {"receiver_cpu", "receiver CPU s/Gbit", 2},
                 {"limit_receiver_cpu", "limit", 2}});
    bool ok = true;
    const auto addRow = [&](const char* what, const Outcome& outcome, const Outcome& limit) {
        ok = ok && outcome.ok && limit.ok;
        table.addRow({what, outcome.mbits, limit.mbits, outcome.received, outcome.sent - outcome.received,
                      outcome.senderSeconds, limit.senderSeconds, outcome.receiverSeconds, limit.receiverSeconds});
    };
    addRow("at 200 Mbit/s", carry("kelp", kWantedMbits, seconds), carry("bare", kWantedMbits, seconds));
    if (settings.length != Length::Smoke) {
        addRow("most with nothing lost", mostWithoutLoss("kelp", seconds), mostWithoutLoss("bare", seconds));
    }
    addRow("as fast as it goes", carry("kelp", 0, seconds), carry("bare", 0, seconds));
    table.setNote("The limit is two sockets of the system's, with a thread that waits in `recv`.");
    report.add(table);
    return ok;
}

}  // namespace kelp::bench
