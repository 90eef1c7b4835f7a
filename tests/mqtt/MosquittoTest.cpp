// The broker client against a fake broker library.
#include "mqtt/Mosquitto.h"

#include "support/Fakes.h"

#include <gtest/gtest.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

TEST(Client, SubscribesToTheKeepaliveWhenItsIdBeginsWithVeyraServer) {
    fakeBroker = {};
    const Mosquitto client("VEYRA_SERVER-2", "h", 1);
    EXPECT_EQ(fakeBroker.client().subscriptions, std::vector<std::string>{keepaliveTopic});
    EXPECT_EQ(fakeBroker.client().subscriptionQos, 2);
}

TEST(Client, DisablesTheDelayOfSmallPackets) {
    fakeBroker = {};
    fakeBroker.socket = socket(AF_INET, SOCK_STREAM, 0);
    const Mosquitto client("VEYRA_SERVER", "h", 1);
    int on = 0;
    socklen_t length = sizeof on;
    getsockopt(fakeBroker.socket, IPPROTO_TCP, TCP_NODELAY, &on, &length);
    EXPECT_NE(on, 0);
}
