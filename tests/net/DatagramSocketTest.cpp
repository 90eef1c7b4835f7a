#include "net/DatagramSocket.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cerrno>
#include <sys/socket.h>
#include <unistd.h>

namespace {

sockaddr_in addressOf(const DatagramSocket& socket) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    getsockname(socket.descriptor, reinterpret_cast<sockaddr*>(&address), &length);
    return address;
}

struct Endpoints : testing::Test {
    Endpoints() {
        EXPECT_TRUE(bindSocket(receiver, 0, false, "127.0.0.1"));
        EXPECT_TRUE(bindSocket(sender, 0, false, "127.0.0.1"));
    }
    ~Endpoints() override {
        close(receiver.descriptor);
        close(sender.descriptor);
    }
    DatagramSocket receiver;
    DatagramSocket sender;
    sockaddr_in from{};
    char buffer[64] = {};
};

} // namespace

TEST_F(Endpoints, CarryDatagramsAndCutLongOnes) {
    EXPECT_TRUE(receiver.open);
    EXPECT_TRUE(transmitDatagram(sender, addressOf(receiver), "hello", 5));
    EXPECT_EQ(receiveDatagram(receiver, from, buffer, sizeof buffer), 5);
    EXPECT_EQ(from.sin_port, addressOf(sender).sin_port);
    EXPECT_TRUE(transmitDatagram(sender, addressOf(receiver), "hello", 5));
    EXPECT_EQ(receiveDatagram(receiver, from, buffer, 3), 3);
}

TEST_F(Endpoints, ReturnFromAnIdleReceiveWithARecordedError) {
    EXPECT_LT(receiveDatagram(receiver, from, buffer, sizeof buffer), 0);
    EXPECT_EQ(receiver.lastErrorText, "Unable to receive datagram");
    EXPECT_EQ(receiver.lastErrorNumber, EAGAIN);
}

TEST_F(Endpoints, ReportATooLongDatagramAndAPortInUse) {
    const std::string tooLong(70000, 'x');
    EXPECT_FALSE(transmitDatagram(sender, addressOf(receiver), tooLong.data(), tooLong.size()));
    EXPECT_EQ(sender.lastErrorText, "Unable to transmit datagram");
    EXPECT_EQ(sender.lastErrorNumber, EMSGSIZE);

    DatagramSocket second;
    EXPECT_FALSE(bindSocket(second, ntohs(addressOf(receiver).sin_port), false, "127.0.0.1"));
    EXPECT_EQ(second.lastErrorText, "Unable to bind socket");
    EXPECT_EQ(second.lastErrorNumber, 0);
    EXPECT_FALSE(second.open);
    ASSERT_NE(second.descriptor, -1) << "stays open for the caller to close";
    close(second.descriptor);
}
