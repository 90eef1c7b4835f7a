#include "net/DatagramSocket.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cerrno>
#include <sys/socket.h>
#include <unistd.h>

TEST(DatagramSocket, RecordsItsErrorsAndCutsLongDatagrams) {
    DatagramSocket socket;
    ASSERT_TRUE(bindSocket(socket, 0, false, "127.0.0.1"));
    sockaddr_in self{};
    socklen_t length = sizeof self;
    getsockname(socket.descriptor, reinterpret_cast<sockaddr*>(&self), &length);
    sockaddr_in from{};
    char buffer[8];

    EXPECT_TRUE(transmitDatagram(socket, self, "hello", 5));
    EXPECT_EQ(receiveDatagram(socket, from, buffer, 3), 3);
    EXPECT_EQ(from.sin_port, self.sin_port);
    EXPECT_LT(receiveDatagram(socket, from, buffer, sizeof buffer), 0) << "nothing comes";
    EXPECT_EQ(socket.lastErrorText, "Unable to receive datagram");
    EXPECT_EQ(socket.lastErrorNumber, EAGAIN);
    EXPECT_FALSE(transmitDatagram(socket, self, std::string(70000, 'x').data(), 70000));
    EXPECT_EQ(socket.lastErrorText, "Unable to transmit datagram");
    EXPECT_EQ(socket.lastErrorNumber, EMSGSIZE);

    DatagramSocket second;
    EXPECT_FALSE(bindSocket(second, ntohs(self.sin_port), false, "127.0.0.1"));
    EXPECT_EQ(second.lastErrorText, "Unable to bind socket");
    EXPECT_EQ(second.lastErrorNumber, 0);
    EXPECT_NE(second.descriptor, -1) << "stays open for the caller to close";
    close(second.descriptor);
    close(socket.descriptor);
}
