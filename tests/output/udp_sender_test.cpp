#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <type_traits>

#include "kelp_player/udp_transport.h"
#include "output/socket_calls.h"

namespace kelp {
namespace {

using test::socketCalls;
using testing::ElementsAre;

static_assert(std::has_virtual_destructor_v<UdpSender>);

const std::string kOpenSocket = "socket " + std::to_string(AF_INET) + " " + std::to_string(SOCK_DGRAM) + " 0";
const std::string kSetSendBuffer = "setsockopt " + std::to_string(SO_SNDBUF) + " 524288";

bool isOpen(int socket) {
    return fcntl(socket, F_GETFD) != -1;
}

class UdpSenderTest : public testing::Test {
protected:
    void SetUp() override {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ASSERT_EQ(bind(receiver_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
        socklen_t length = sizeof(address);
        ASSERT_EQ(getsockname(receiver_, reinterpret_cast<sockaddr*>(&address), &length), 0);
        port_ = ntohs(address.sin_port);
        test::resetSocketCalls();
    }

    void TearDown() override {
        sender_.stopSender();
        close(receiver_);
        test::resetSocketCalls();
    }

    int send(const std::string& data) {
        return sender_.send(reinterpret_cast<const unsigned char*>(data.data()), static_cast<int>(data.size()));
    }

    // The next datagram, which is there already: on the loopback a send ends in the receiver's buffer.
    std::string receive() {
        char buffer[65536];
        const ssize_t size = recv(receiver_, buffer, sizeof(buffer), MSG_DONTWAIT);
        return size < 0 ? "nothing" : std::string(buffer, size);
    }

    UdpSender sender_;
    int receiver_ = socket(AF_INET, SOCK_DGRAM, 0);
    unsigned short port_ = 0;
};

TEST_F(UdpSenderTest, SendsDatagrams) {
    EXPECT_TRUE(sender_.startSender("127.0.0.1", port_));
    EXPECT_THAT(test::socketCallNames(), ElementsAre(kOpenSocket, kSetSendBuffer));
    EXPECT_EQ(send("first"), 5);
    EXPECT_EQ(send(""), 0);
    EXPECT_EQ(send(std::string(30000, 'x')), 30000);
    EXPECT_EQ(receive(), "first");
    EXPECT_EQ(receive(), "");
    EXPECT_EQ(receive(), std::string(30000, 'x'));
    EXPECT_EQ(receive(), "nothing");
    EXPECT_FALSE(fcntl(socketCalls().lastSocket, F_GETFL) & O_NONBLOCK);
}

TEST_F(UdpSenderTest, FailsToSendBeforeAStartAndAfterAStop) {
    EXPECT_EQ(send("x"), -1);
    EXPECT_TRUE(sender_.startSender("127.0.0.1", port_));
    EXPECT_EQ(send("x"), 1);
    const int socket = socketCalls().lastSocket;
    sender_.stopSender();
    EXPECT_FALSE(isOpen(socket));
    EXPECT_EQ(send("x"), -1);
    // The number may be somebody else's by now.
    const int other = dup(STDERR_FILENO);
    EXPECT_EQ(other, socket);
    sender_.stopSender();
    EXPECT_TRUE(isOpen(other));
    close(other);
}

TEST_F(UdpSenderTest, FailsToSendToWhatIsNoAddress) {
    for (const char* address : {"", "localhost", "127.0.0.1.1", "::1"}) {
        SCOPED_TRACE(address);
        EXPECT_TRUE(sender_.startSender(address, port_));
        EXPECT_EQ(send("x"), -1);
        sender_.stopSender();
    }
    EXPECT_EQ(receive(), "nothing");
}

TEST_F(UdpSenderTest, FailsToSendWhatIsNoDatagram) {
    EXPECT_TRUE(sender_.startSender("127.0.0.1", port_));
    EXPECT_EQ(send(std::string(65536, 'x')), -1);
    unsigned char byte = 0;
    EXPECT_EQ(sender_.send(&byte, -1), -1);
    EXPECT_EQ(sender_.send(nullptr, 1), -1);
    EXPECT_EQ(receive(), "nothing");
}

TEST_F(UdpSenderTest, FailsToStartWithoutASocket) {
    test::failSocketCall(kOpenSocket);
    EXPECT_FALSE(sender_.startSender("127.0.0.1", port_));
    EXPECT_EQ(send("x"), -1);
    EXPECT_THAT(test::socketCallNames(), ElementsAre(kOpenSocket));
}

TEST_F(UdpSenderTest, StartsWithASmallerSendBuffer) {
    test::failSocketCall(kSetSendBuffer);
    testing::internal::CaptureStderr();
    EXPECT_TRUE(sender_.startSender("127.0.0.1", port_));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "setsockopt(SO_SNDBUF): Permission denied\n");
    EXPECT_EQ(send("x"), 1);
}

TEST_F(UdpSenderTest, LeavesTheFirstSocketOpenOnASecondStart) {
    EXPECT_TRUE(sender_.startSender("127.0.0.1", 9));
    const int first = socketCalls().lastSocket;
    EXPECT_TRUE(sender_.startSender("127.0.0.1", port_));
    const int second = socketCalls().lastSocket;
    EXPECT_NE(first, second);
    EXPECT_TRUE(isOpen(first));
    EXPECT_EQ(send("x"), 1);
    EXPECT_EQ(receive(), "x");
    sender_.stopSender();
    EXPECT_TRUE(isOpen(first));
    EXPECT_FALSE(isOpen(second));
    close(first);
}

TEST_F(UdpSenderTest, LeavesTheSocketOpenWhenItIsDestroyed) {
    auto sender = std::make_unique<UdpSender>();
    EXPECT_TRUE(sender->startSender("127.0.0.1", port_));
    const int socket = socketCalls().lastSocket;
    sender.reset();
    EXPECT_TRUE(isOpen(socket));
    close(socket);
}

}  // namespace
}  // namespace kelp
