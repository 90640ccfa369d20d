#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "kelp_player/udp_transport.h"

// Both classes together in real time: much data, many stops, and whatever else may happen at the same moment.

namespace kelp::test {

// What the receiver's thread does between the moment when it takes the socket's number and the moment when it uses it.
std::atomic<void (*)()> beforeRecvfrom{nullptr};
// The next file isn't opened: the process has no descriptor to spare.
std::atomic<bool> openFails{false};

}  // namespace kelp::test

extern "C" {
int __real_open(const char* path, int flags);
int __wrap_open(const char* path, int flags) {
    if (kelp::test::openFails.exchange(false)) {
        errno = EMFILE;
        return -1;
    }
    return __real_open(path, flags);
}

ssize_t __real_recvfrom(int socket, void* buffer, size_t size, int flags, sockaddr* from, socklen_t* length);
ssize_t __wrap_recvfrom(int socket, void* buffer, size_t size, int flags, sockaddr* from, socklen_t* length) {
    if (const auto hook = kelp::test::beforeRecvfrom.load()) {
        hook();
    }
    return __real_recvfrom(socket, buffer, size, flags, from, length);
}
}

namespace kelp {
namespace {

using Clock = std::chrono::steady_clock;
using testing::ElementsAre;

constexpr auto kLimit = std::chrono::seconds(60);

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

// Calls a function for every datagram.
class Observer : public UdpReceiverObserver {
public:
    explicit Observer(std::function<void(const unsigned char*, int)> call) : call_(std::move(call)) {}
    void onUdpData(const unsigned char* data, int size) override { call_(data, size); }

private:
    std::function<void(const unsigned char*, int)> call_;
};

// Keeps every datagram.
class Recorder : public UdpReceiverObserver {
public:
    void onUdpData(const unsigned char* data, int size) override {
        std::lock_guard lock(mutex_);
        datagrams_.emplace_back(reinterpret_cast<const char*>(data), size);
        came_.notify_all();
    }

    // Waits until `count` have come, and gives them all.
    std::vector<std::string> waitFor(size_t count) {
        std::unique_lock lock(mutex_);
        came_.wait_for(lock, kLimit, [&] { return datagrams_.size() >= count; });
        return datagrams_;
    }

private:
    std::mutex mutex_;
    std::condition_variable came_;
    std::vector<std::string> datagrams_;
};

#pragma GCC diagnostic pop

// Keeps what is printed meanwhile from the test's output: every start of a receiver prints a line.
class QuietOutput {
public:
    QuietOutput() { testing::internal::CaptureStdout(); }
    QuietOutput(const QuietOutput&) = delete;
    QuietOutput& operator=(const QuietOutput&) = delete;
    ~QuietOutput() { testing::internal::GetCapturedStdout(); }
};

// A port that the system has chosen, which a receiver can have too, but nobody else gets meanwhile. It is held at an
// address of this machine that no test sends to.
class SharedPort {
public:
    SharedPort() : socket_(socket(AF_INET, SOCK_DGRAM, 0)) {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK + 1);
        EXPECT_EQ(bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
        socklen_t length = sizeof(address);
        EXPECT_EQ(getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &length), 0);
        number_ = ntohs(address.sin_port);
        const int reuse = 1;
        EXPECT_EQ(setsockopt(socket_, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof(reuse)), 0);
    }
    SharedPort(const SharedPort&) = delete;
    SharedPort& operator=(const SharedPort&) = delete;
    ~SharedPort() { close(socket_); }

    unsigned short number() const { return number_; }

private:
    int socket_;
    unsigned short number_ = 0;
};

// A receiver that runs while this object lives.
class RunningReceiver {
public:
    RunningReceiver(UdpReceiverObserver* observer, const SharedPort& port) : receiver_(UdpReceiver::create()) {
        receiver_->init(observer);
        const QuietOutput quiet;
        EXPECT_TRUE(receiver_->startReceiver(port.number()));
    }
    RunningReceiver(const RunningReceiver&) = delete;
    RunningReceiver& operator=(const RunningReceiver&) = delete;
    ~RunningReceiver() {
        stop();
        UdpReceiver::destroy(receiver_);
    }

    void stop() { receiver_->stopReceiver(); }

private:
    UdpReceiver* receiver_;
};

// A sender to a port of the loopback address.
class LoopbackSender {
public:
    explicit LoopbackSender(const SharedPort& port) { EXPECT_TRUE(sender_.startSender("127.0.0.1", port.number())); }
    LoopbackSender(const LoopbackSender&) = delete;
    LoopbackSender& operator=(const LoopbackSender&) = delete;
    ~LoopbackSender() { sender_.stopSender(); }

    int send(const std::string& data) {
        return sender_.send(reinterpret_cast<const unsigned char*>(data.data()), static_cast<int>(data.size()));
    }
    int send(const unsigned char* data, int size) { return sender_.send(data, size); }

private:
    UdpSender sender_;
};

// How many datagrams the system has thrown away at a receiver's port because nobody read them in time; -1
// if nobody receives there.
int64_t droppedBySystem(const SharedPort& port) {
    std::array<char, 24> wanted{};
    std::snprintf(wanted.data(), wanted.size(), "00000000:%04X", port.number());
    std::ifstream table("/proc/net/udp");
    std::string line;
    while (std::getline(table, line)) {
        std::istringstream words(line);
        std::string slot, local;
        words >> slot >> local;
        if (local == wanted.data()) {
            return std::stoll(line.substr(line.find_last_of(' ', line.find_last_not_of(' '))));
        }
    }
    return -1;
}

// A long row of different datagrams of 1 to 1400 bytes: each begins with its number, as far as that fits, and goes on
// with bytes that depend on it.
class Row {
public:
    static constexpr int kCount = 100000;

    static int size(int number) { return 1 + static_cast<int>(static_cast<int64_t>(number) * 7919 % 1400); }

    Row() {
        for (size_t i = 0; i < pattern_.size(); ++i) {
            pattern_[i] = static_cast<unsigned char>(i * i / 7 + i);
        }
    }

    void make(int number, unsigned char* datagram) const {
        const int length = size(number);
        std::memcpy(datagram, pattern_.data() + number % kShifts, static_cast<size_t>(length));
        std::memcpy(datagram, &number, std::min<size_t>(sizeof(number), static_cast<size_t>(length)));
    }

    bool is(int number, const unsigned char* datagram, int length) const {
        const size_t head = std::min<size_t>(sizeof(number), static_cast<size_t>(length));
        return length == size(number) && std::memcmp(datagram, &number, head) == 0 &&
               std::memcmp(datagram + head, pattern_.data() + number % kShifts + head,
                           static_cast<size_t>(length) - head) == 0;
    }

private:
    static constexpr int kShifts = 1000;
    std::array<unsigned char, kShifts + 1400> pattern_{};
};

// Sends the row, with `pause` after every hundredth datagram, and checks that all that arrives is intact and in order,
// and that what doesn't was dropped by the system.
void sendRow(const char* how, const std::function<void()>& pause) {
    const Row row;
    std::atomic<int> received{0};
    std::atomic<int> wrong{0};
    int next = 0;  // the smallest number that may come; the receiver's thread alone uses it
    Observer observer([&](const unsigned char* data, int size) {
        // What is skipped was lost on the way.
        while (next < Row::kCount && !row.is(next, data, size)) {
            ++next;
        }
        wrong += next == Row::kCount;
        ++next;
        ++received;
    });
    const SharedPort port;
    const RunningReceiver receiver(&observer, port);
    LoopbackSender sender(port);
    const auto begin = Clock::now();
    std::array<unsigned char, 1400> datagram{};
    int64_t bytes = 0;
    for (int i = 0; i < Row::kCount; ++i) {
        row.make(i, datagram.data());
        ASSERT_EQ(sender.send(datagram.data(), Row::size(i)), Row::size(i));
        bytes += Row::size(i);
        if (i % 100 == 99 && pause) {
            pause();
        }
    }
    const double sentSeconds = std::chrono::duration<double>(Clock::now() - begin).count();
    while (received + droppedBySystem(port) < Row::kCount && Clock::now() - begin < kLimit) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    const int64_t dropped = droppedBySystem(port);
    EXPECT_EQ(received + dropped, Row::kCount);
    EXPECT_EQ(wrong, 0);
    EXPECT_GT(received, 0);
    std::printf("%s: %d datagrams sent at %.0f Mbit/s, %lld of them dropped by the system\n", how, Row::kCount,
                static_cast<double>(bytes) * 8e-6 / sentSeconds, static_cast<long long>(dropped));
}

TEST(UdpTransport, CarriesARowOfDatagramsAtFullSpeed) {
    sendRow("at full speed", nullptr);
}

TEST(UdpTransport, CarriesARowOfDatagramsWithPauses) {
    // Really sleeps: the pauses are what is tested.
    sendRow("with pauses", [] { std::this_thread::sleep_for(std::chrono::microseconds(500)); });
}

TEST(UdpTransport, CarriesUpTo2000BytesAndNothingOfWhatIsLonger) {
    Recorder recorder;
    const SharedPort port;
    const RunningReceiver receiver(&recorder, port);
    LoopbackSender sender(port);
    for (const int size : {0, 2000, 2001, 65507, 1}) {
        EXPECT_EQ(sender.send(std::string(static_cast<size_t>(size), 'x')), size);
    }
    EXPECT_EQ(sender.send("end"), 3);
    EXPECT_THAT(recorder.waitFor(4), ElementsAre("", std::string(2000, 'x'), "x", "end"));
    EXPECT_EQ(sender.send(std::string(65508, 'x')), -1);
    EXPECT_EQ(sender.send("another"), 7);
    EXPECT_EQ(recorder.waitFor(5).back(), "another");
}

TEST(UdpTransport, GivesTheDatagramsOfASharedPortToTheReceiverThatStartedLast) {
    Recorder first;
    Recorder second;
    const SharedPort port;
    const RunningReceiver receiver(&first, port);
    LoopbackSender sender(port);
    {
        const RunningReceiver other(&second, port);
        for (int i = 0; i < 10; ++i) {
            sender.send("shared");
        }
        EXPECT_EQ(second.waitFor(10).size(), 10U);
    }
    sender.send("alone");
    EXPECT_THAT(first.waitFor(1), ElementsAre("alone"));
    EXPECT_EQ(second.waitFor(10).size(), 10U);
}

TEST(UdpTransport, SendsToNobodyAndThenToSomebody) {
    const SharedPort port;
    LoopbackSender sender(port);
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(sender.send("lost"), 4);
    }
    Recorder recorder;
    const RunningReceiver receiver(&recorder, port);
    EXPECT_EQ(sender.send("arrives"), 7);
    EXPECT_THAT(recorder.waitFor(1), ElementsAre("arrives"));
}

// Data that pours onto a port while this object lives.
class Flood {
public:
    explicit Flood(const SharedPort& port)
        : thread_([this, &port] {
              LoopbackSender sender(port);
              while (!done_) {
                  sender.send("flood");
              }
          }) {}
    Flood(const Flood&) = delete;
    Flood& operator=(const Flood&) = delete;
    ~Flood() {
        done_ = true;
        thread_.join();
    }

private:
    std::atomic<bool> done_{false};
    std::thread thread_;
};

// Opens descriptors all the time, each with a datagram to read in it, and counts those from which it was taken away.
class DescriptorOpener {
public:
    DescriptorOpener() : thread_([this] { run(); }) {}
    DescriptorOpener(const DescriptorOpener&) = delete;
    DescriptorOpener& operator=(const DescriptorOpener&) = delete;
    ~DescriptorOpener() { stop(); }

    void stop() {
        done_ = true;
        if (thread_.joinable()) {
            thread_.join();
        }
    }
    int opened() const { return opened_; }
    int robbed() const { return robbed_; }

private:
    void run() {
        while (!done_) {
            std::array<std::array<int, 2>, 4> pairs{};
            for (auto& pair : pairs) {
                ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, pair.data()), 0);
                // Either end may have got the receiver's number.
                for (const int end : pair) {
                    ASSERT_EQ(write(end, "foreign", 7), 7);
                }
                opened_ += 2;
            }
            std::this_thread::sleep_for(std::chrono::microseconds(100));
            for (auto& pair : pairs) {
                for (const int end : pair) {
                    std::array<char, 16> text{};
                    robbed_ += recv(end, text.data(), text.size(), MSG_DONTWAIT) != 7;
                }
                close(pair[0]);
                close(pair[1]);
            }
        }
    }

    std::atomic<bool> done_{false};
    std::atomic<int> opened_{0};
    std::atomic<int> robbed_{0};
    std::thread thread_;
};

// Starts and stops a receiver again and again while data pours in.
void stopManyTimes(int rounds) {
    std::atomic<bool> running{false};
    std::atomic<int> received{0};
    std::atomic<int> foreign{0};
    std::atomic<int> late{0};
    Observer observer([&](const unsigned char* data, int size) {
        late += !running;
        foreign += size != 5 || std::memcmp(data, "flood", 5) != 0;
        ++received;
    });
    UdpReceiver* receiver = UdpReceiver::create();
    receiver->init(&observer);
    const SharedPort port;
    int roundsWithData = 0;
    {
        const QuietOutput quiet;
        const Flood flood(port);
        for (int i = 0; i < rounds; ++i) {
            const int before = received;
            running = true;
            ASSERT_TRUE(receiver->startReceiver(port.number()));
            // Half of the rounds stop in the middle of the stream, the others at once.
            const auto begin = Clock::now();
            while (i % 2 == 0 && received == before && Clock::now() - begin < kLimit) {
                std::this_thread::yield();
            }
            receiver->stopReceiver();
            running = false;
            roundsWithData += received > before;
        }
    }
    UdpReceiver::destroy(receiver);
    EXPECT_GE(roundsWithData, rounds / 2);
    EXPECT_EQ(late, 0) << "datagrams after a stop";
    EXPECT_EQ(foreign, 0) << "datagrams that nobody sent to the port";
}

TEST(UdpTransport, StopsAThousandTimesWhileDataPoursIn) {
    const int before = dup(STDERR_FILENO);
    close(before);
    stopManyTimes(1000);
    const int after = dup(STDERR_FILENO);
    close(after);
    EXPECT_EQ(after, before) << "descriptors are left open";
}

TEST(UdpTransport, StopsWithoutADescriptorToSpare) {
    Recorder recorder;
    const SharedPort port;
    auto receiver = std::make_unique<RunningReceiver>(&recorder, port);
    LoopbackSender sender(port);
    sender.send("x");
    EXPECT_THAT(recorder.waitFor(1), ElementsAre("x"));
    test::openFails = true;
    receiver->stop();
    EXPECT_FALSE(test::openFails) << "nothing was opened";
    receiver.reset();
    EXPECT_EQ(droppedBySystem(port), -1) << "the port was not given back";
    const RunningReceiver another(&recorder, port);
    sender.send("y");
    EXPECT_THAT(recorder.waitFor(2), ElementsAre("x", "y"));
}

TEST(UdpTransport, NeverReadsFromADescriptorThatIsSomebodyElsesByThen) {
    // Holds the thread up for a moment with the number in its hand, now and then.
    test::beforeRecvfrom = [] {
        thread_local unsigned int calls = 0;
        if (++calls % 4 == 0) {
            std::this_thread::sleep_for(std::chrono::microseconds(50));
        }
    };
    DescriptorOpener opener;
    stopManyTimes(400);
    opener.stop();
    test::beforeRecvfrom = nullptr;
    EXPECT_GT(opener.opened(), 1000);
    EXPECT_EQ(opener.robbed(), 0);
}

}  // namespace
}  // namespace kelp
