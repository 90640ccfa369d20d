#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "kelp_player/udp_transport.h"
#include "output/socket_calls.h"
#include "support/fake_time.h"
#include "support/log_capture.h"

namespace kelp {
namespace {

using test::FakeTime;
using test::LogCapture;
using test::socketCalls;
using testing::ElementsAre;
using testing::HasSubstr;

static_assert(std::has_virtual_destructor_v<UdpReceiver>);
static_assert(!std::is_destructible_v<UdpReceiver>);
static_assert(!std::is_default_constructible_v<UdpReceiver>);

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

// Keeps what came. `onData`, if set, runs on the receiver's thread before it is kept.
class Recorder : public UdpReceiverObserver {
public:
    void onUdpData(const unsigned char* data, int size) override {
        if (onData) {
            onData();
        }
        std::lock_guard lock(mutex_);
        datagrams_.emplace_back(reinterpret_cast<const char*>(data), size);
        threads_.push_back(std::this_thread::get_id());
        came_.notify_all();
    }

    // Waits in real time until `count` datagrams have come, and gives them all.
    std::vector<std::string> waitFor(size_t count) {
        std::unique_lock lock(mutex_);
        came_.wait_for(lock, std::chrono::seconds(20), [&] { return datagrams_.size() >= count; });
        return datagrams_;
    }

    std::vector<std::thread::id> threads() {
        std::lock_guard lock(mutex_);
        return threads_;
    }

    std::function<void()> onData;

private:
    std::mutex mutex_;
    std::condition_variable came_;
    std::vector<std::string> datagrams_;
    std::vector<std::thread::id> threads_;
};

#pragma GCC diagnostic pop

// Takes a port on all interfaces that the system has chosen. Without `shared` nobody else can have it meanwhile; with
// it a receiver can, and nothing else is given the port.
class PortHolder {
public:
    explicit PortHolder(bool shared, unsigned short port = 0) : socket_(socket(AF_INET, SOCK_DGRAM, 0)) {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        bound_ = bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
        socklen_t length = sizeof(address);
        getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &length);
        port_ = ntohs(address.sin_port);
        if (shared) {
            const int reuse = 1;
            setsockopt(socket_, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof(reuse));
        }
    }
    PortHolder(const PortHolder&) = delete;
    PortHolder& operator=(const PortHolder&) = delete;
    ~PortHolder() { close(socket_); }

    bool bound() const { return bound_; }
    unsigned short port() const { return port_; }

private:
    int socket_;
    bool bound_ = false;
    unsigned short port_ = 0;
};

bool portIsFree(unsigned short port) {
    return PortHolder(/*shared=*/false, port).bound();
}

class UdpReceiverTest : public testing::Test {
protected:
    // The receiver's sleeps last until the test lets time pass: an idle one stands still.
    void SetUp() override {
        FakeTime::reset();
        FakeTime::setManual(true);
        receiver_ = UdpReceiver::create();
        receiver_->init(&recorder_);
        destination_.sin_family = AF_INET;
        destination_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        test::resetSocketCalls();
    }

    void TearDown() override {
        stop();
        UdpReceiver::destroy(receiver_);
        close(sender_);
        test::resetSocketCalls();
        FakeTime::reset();
    }

    void start() {
        testing::internal::CaptureStdout();
        const PortHolder port(/*shared=*/true);
        test::resetSocketCalls();
        ASSERT_TRUE(receiver_->startReceiver(port.port()));
        port_ = port.port();
        destination_.sin_port = htons(port_);
        startOutput_ = testing::internal::GetCapturedStdout();
    }

    // Lets a sleeping receiver go, and stops it.
    void stop() {
        FakeTime::setManual(false);
        receiver_->stopReceiver();
        FakeTime::setManual(true);
    }

    void send(const std::string& data) {
        EXPECT_EQ(sendto(sender_, data.data(), data.size(), 0, reinterpret_cast<const sockaddr*>(&destination_),
                         sizeof(destination_)),
                  static_cast<ssize_t>(data.size()));
    }

    // Waits until the receiver has nothing more to read, and lets it look again.
    void wake() {
        ASSERT_TRUE(FakeTime::waitForSleepers(1));
        FakeTime::advanceMs(10);
    }

    Recorder recorder_;
    UdpReceiver* receiver_ = nullptr;
    unsigned short port_ = 0;
    std::string startOutput_;
    sockaddr_in destination_ = {};
    int sender_ = socket(AF_INET, SOCK_DGRAM, 0);
};

TEST_F(UdpReceiverTest, HandsDatagramsOverInOrderOnOneThreadOfItsOwn) {
    start();
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    send("first");
    send("second");
    send(std::string("\0third", 6));
    wake();
    EXPECT_THAT(recorder_.waitFor(3), ElementsAre("first", "second", std::string("\0third", 6)));
    const auto threads = recorder_.threads();
    EXPECT_EQ(threads[0], threads[2]);
    EXPECT_NE(threads[0], std::this_thread::get_id());
}

TEST_F(UdpReceiverTest, HandsAnEmptyDatagramOver) {
    start();
    send("");
    send("x");
    wake();
    EXPECT_THAT(recorder_.waitFor(2), ElementsAre("", "x"));
}

TEST_F(UdpReceiverTest, LosesWhatIsLongerThan2000Bytes) {
    start();
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    const std::string longest(2000, 'a');
    send(std::string(2001, 'b'));
    send(longest);
    send(std::string(9000, 'c'));
    send("end");
    // A lost one counts as nothing to read: 10 ms pass before the next look.
    wake();
    wake();
    EXPECT_THAT(recorder_.waitFor(1), ElementsAre(longest));
    wake();
    EXPECT_THAT(recorder_.waitFor(2), ElementsAre(longest, "end"));
}

TEST_F(UdpReceiverTest, LooksForDatagramsEveryTenMilliseconds) {
    start();
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    send("x");
    FakeTime::advanceMs(9);
    EXPECT_TRUE(recorder_.waitFor(0).empty());
    EXPECT_EQ(FakeTime::sleepCount(), 1);
    FakeTime::advanceMs(1);
    EXPECT_THAT(recorder_.waitFor(1), ElementsAre("x"));
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    EXPECT_EQ(FakeTime::sleepCount(), 2);
    EXPECT_EQ(FakeTime::sleptMs(), 20);
}

TEST_F(UdpReceiverTest, RestsNoLongerWhenItIsStopped) {
    start();
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    receiver_->stopReceiver();
    EXPECT_EQ(FakeTime::nowMs(), 1'000'000);
    EXPECT_EQ(FakeTime::sleepCount(), 1);
}

TEST_F(UdpReceiverTest, GoesOnAfterAnError) {
    start();
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    test::failSocketCall("recvfrom");
    send("x");
    for (int i = 0; i < 5; ++i) {
        wake();
    }
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    EXPECT_TRUE(recorder_.waitFor(0).empty());
    EXPECT_EQ(FakeTime::sleptMs(), 60);
    test::resetSocketCalls();
    wake();
    EXPECT_THAT(recorder_.waitFor(1), ElementsAre("x"));
}

TEST_F(UdpReceiverTest, DropsDatagramsWithoutAnObserver) {
    EXPECT_TRUE(receiver_->init(nullptr));
    start();
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    send("x");
    wake();
    // Read and gone: nobody is left to get it now.
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    char byte = 0;
    EXPECT_EQ(recv(socketCalls().lastSocket, &byte, 1, MSG_DONTWAIT | MSG_PEEK), -1);
    EXPECT_EQ(errno, EAGAIN);
    stop();
    EXPECT_TRUE(recorder_.waitFor(0).empty());
}

TEST_F(UdpReceiverTest, SetsTheSocketUpInOrder) {
    start();
    const std::string udpSocket =
        "socket " + std::to_string(AF_INET) + " " + std::to_string(SOCK_DGRAM) + " " + std::to_string(IPPROTO_UDP);
    const std::string receiveBuffer = std::to_string(SO_RCVBUF);
    EXPECT_THAT(test::socketCallNames(),
                ElementsAre(udpSocket, "setsockopt " + std::to_string(SO_REUSEADDR) + " 1",
                            "setsockopt " + receiveBuffer + " 400000000", "getsockopt " + receiveBuffer,
                            "setsockopt " + std::to_string(SO_RCVTIMEO) + " 0s20000us", "bind", "ioctl FIONBIO 1",
                            "setsockopt " + receiveBuffer + " 26214400"));
    const int socket = socketCalls().lastSocket;
    EXPECT_TRUE(fcntl(socket, F_GETFL) & O_NONBLOCK);
    sockaddr_in address = {};
    socklen_t length = sizeof(address);
    ASSERT_EQ(getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length), 0);
    EXPECT_EQ(address.sin_addr.s_addr, htonl(INADDR_ANY));
    EXPECT_THAT(startOutput_, testing::MatchesRegex("OS current udp socket recv buff size is: [0-9]+\n"));
}

TEST_F(UdpReceiverTest, GoesOnWithoutTheOptionsThatItCanDoWithout) {
    // The thread may begin so late that it finds the socket non-blocking below, and sleeps before the datagram is
    // there.
    FakeTime::setManual(false);
    const std::string receiveBuffer = std::to_string(SO_RCVBUF);
    const PortHolder port(/*shared=*/true);
    test::failSocketCall("setsockopt " + receiveBuffer + " 400000000");
    test::failSocketCall("getsockopt " + receiveBuffer);
    test::failSocketCall("setsockopt " + std::to_string(SO_RCVTIMEO) + " 0s20000us");
    test::failSocketCall("ioctl FIONBIO 1");
    test::failSocketCall("setsockopt " + receiveBuffer + " 26214400");
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    // With a blocking socket and no time limit the receiver waits for a datagram.
    EXPECT_TRUE(receiver_->startReceiver(port.port()));
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "getsockopt(SO_RCVBUF) error=13 (Permission denied)!!!\nOS current udp socket recv buff size is: -1\n");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "setsockopt(SO_RCVBUF): Permission denied\nnon-block: Permission denied\n");
    fcntl(socketCalls().lastSocket, F_SETFL, O_NONBLOCK);
    destination_.sin_port = htons(port.port());
    send("x");
    EXPECT_THAT(recorder_.waitFor(1), ElementsAre("x"));
}

TEST_F(UdpReceiverTest, FailsWithoutASocket) {
    test::failSocketCall("socket " + std::to_string(AF_INET) + " " + std::to_string(SOCK_DGRAM) + " " +
                         std::to_string(IPPROTO_UDP));
    EXPECT_FALSE(receiver_->startReceiver(0));
    receiver_->stopReceiver();
}

TEST_F(UdpReceiverTest, FailsWhereThePortCannotBeShared) {
    test::failSocketCall("setsockopt " + std::to_string(SO_REUSEADDR) + " 1");
    testing::internal::CaptureStderr();
    EXPECT_FALSE(receiver_->startReceiver(0));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "reuseaddr: Permission denied\n");
    // The socket is kept until the next start or stop.
    const int socket = socketCalls().lastSocket;
    EXPECT_NE(fcntl(socket, F_GETFD), -1);
    receiver_->stopReceiver();
    EXPECT_EQ(fcntl(socket, F_GETFD), -1);
}

TEST_F(UdpReceiverTest, FailsForAPortThatIsTakenAndStartsOnAnother) {
    const PortHolder taken(/*shared=*/false);
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    EXPECT_FALSE(receiver_->startReceiver(taken.port()));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "bind: Address already in use\n");
    testing::internal::GetCapturedStdout();
    const int firstSocket = socketCalls().lastSocket;
    EXPECT_NE(fcntl(firstSocket, F_GETFD), -1);
    EXPECT_TRUE(recorder_.waitFor(0).empty());
    {
        const PortHolder hole(/*shared=*/true);  // its number differs from the first socket's
        start();
    }
    EXPECT_EQ(socketCalls().lastSocket, firstSocket) << "the first socket was given back before the second was opened";
    send("x");
    wake();
    EXPECT_THAT(recorder_.waitFor(1), ElementsAre("x"));
}

TEST_F(UdpReceiverTest, StartsOnceForTwoCalls) {
    LogCapture log;
    start();
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    test::resetSocketCalls();
    EXPECT_TRUE(receiver_->startReceiver(port_));
    EXPECT_TRUE(receiver_->startReceiver(static_cast<unsigned short>(port_ + 1)));
    EXPECT_TRUE(test::socketCallNames().empty());
    EXPECT_EQ(log.count("[UdpReceiver]: receiveRun ...\n"), 1);
    stop();
    EXPECT_THAT(log.lines(), ElementsAre("[UdpReceiver]: receiveRun ...\n", "[UdpReceiver]: receiveRun exit ...\n"));
}

TEST_F(UdpReceiverTest, StopsWithoutAStart) {
    receiver_->stopReceiver();
    receiver_->stopReceiver();
    // The flags are clear: it starts, and its thread doesn't end at once.
    start();
    send("x");
    wake();
    EXPECT_THAT(recorder_.waitFor(1), ElementsAre("x"));
}

TEST_F(UdpReceiverTest, StartsAgainAfterAStop) {
    for (int i = 0; i < 3; ++i) {
        start();
        send("run " + std::to_string(i));
        wake();
        recorder_.waitFor(i + 1);
        stop();
        EXPECT_TRUE(portIsFree(port_));
    }
    EXPECT_THAT(recorder_.waitFor(3), ElementsAre("run 0", "run 1", "run 2"));
}

TEST_F(UdpReceiverTest, ClosesThePortBeforeItWaitsForTheThread) {
    std::promise<void> entered;
    std::promise<void> leave;
    recorder_.onData = [&] {
        entered.set_value();
        leave.get_future().wait();
    };
    start();
    const int number = socketCalls().lastSocket;
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    send("x");
    send("never read");
    wake();
    entered.get_future().wait();
    std::thread stopper([&] { receiver_->stopReceiver(); });
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!portIsFree(port_) && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::yield();
    }
    EXPECT_TRUE(portIsFree(port_));
    // The thread may still use the socket's number, so nobody else is given it yet.
    std::vector<int> others;
    for (int i = 0; i < 20; ++i) {
        others.push_back(dup(STDERR_FILENO));
        EXPECT_NE(others.back(), number);
    }
    leave.set_value();
    stopper.join();
    EXPECT_EQ(fcntl(number, F_GETFD), -1);
    for (int other : others) {
        close(other);
    }
    EXPECT_THAT(recorder_.waitFor(0), ElementsAre("x"));
}

TEST_F(UdpReceiverTest, GivesEverySocketBack) {
    const int before = dup(STDERR_FILENO);
    close(before);
    for (int i = 0; i < 5; ++i) {
        start();
        stop();
    }
    const int after = dup(STDERR_FILENO);
    close(after);
    EXPECT_EQ(after, before);
}

TEST_F(UdpReceiverTest, StopsUnderAFlood) {
    FakeTime::setManual(false);
    start();
    std::atomic<bool> done{false};
    std::thread flood([&] {
        while (!done) {
            sendto(sender_, "x", 1, 0, reinterpret_cast<const sockaddr*>(&destination_), sizeof(destination_));
        }
    });
    recorder_.waitFor(100);
    receiver_->stopReceiver();
    const size_t received = recorder_.waitFor(0).size();
    EXPECT_GE(received, 100U);
    done = true;
    flood.join();
    EXPECT_EQ(recorder_.waitFor(0).size(), received);
}

TEST(UdpReceiver, DestroysNothingForNull) {
    UdpReceiver::destroy(nullptr);
}

TEST(UdpReceiver, IsDestroyedAfterAFailedStart) {
    // The socket that the start left is given back: the address checker would not see it, but the numbers do.
    test::resetSocketCalls();
    test::failSocketCall("bind");
    UdpReceiver* receiver = UdpReceiver::create();
    testing::internal::CaptureStdout();
    EXPECT_FALSE(receiver->startReceiver(0));
    testing::internal::GetCapturedStdout();
    const int socket = socketCalls().lastSocket;
    UdpReceiver::destroy(receiver);
    EXPECT_EQ(fcntl(socket, F_GETFD), -1);
    test::resetSocketCalls();
}

TEST(UdpReceiverDeathTest, EndsTheProcessIfItIsDestroyedWhileItRuns) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            UdpReceiver* receiver = UdpReceiver::create();
            receiver->startReceiver(0);
            UdpReceiver::destroy(receiver);
        },
        "");
}

}  // namespace
}  // namespace kelp
