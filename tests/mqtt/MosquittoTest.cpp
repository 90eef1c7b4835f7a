// The broker client against a fake broker library.
#include "mqtt/Mosquitto.h"

#include "common/ProcessState.h"
#include "support/Fakes.h"

#include <gtest/gtest.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace {

struct Client : testing::Test {
    Client() {
        fakeBroker = {};
        section = Json::objectValue;
    }

    // The library calls of a client for the configured broker.
    static const ClientRecord& create() {
        delete createMqttClient();
        return fakeBroker.client();
    }

    Json::Value& section = configurationForStartup()["mqtt"];
};

} // namespace

TEST_F(Client, ConnectsToTheDefaultBroker) {
    const ClientRecord& client = create();
    EXPECT_EQ(client.id, "VEYRA_SERVER");
    EXPECT_TRUE(client.cleanSession);
    EXPECT_EQ(client.address, "127.0.0.1:1883");
    EXPECT_EQ(client.keepaliveSeconds, 5);
}

TEST_F(Client, ConnectsToTheConfiguredBrokerIfHostAndPortArePresent) {
    section["host"] = "h";
    EXPECT_EQ(create().address, "127.0.0.1:1883");
    section["port"] = 1;
    EXPECT_EQ(create().address, "h:1");
    section.removeMember("host");
    EXPECT_EQ(create().address, "127.0.0.1:1883");
}

TEST_F(Client, LogsInIfUsernameAndPasswordArePresent) {
    section["username"] = "u";
    EXPECT_EQ(create().username, "");
    section["password"] = "p";
    EXPECT_EQ(create().username, "u");
    EXPECT_EQ(fakeBroker.client().password, "p");
    section.removeMember("username");
    EXPECT_EQ(create().password, "");
}

TEST_F(Client, SubscribesToTheKeepaliveWhenItsIdBeginsWithVeyraServer) {
    const Mosquitto client("VEYRA_SERVER-2", "h", 1);
    EXPECT_EQ(fakeBroker.client().subscriptions, std::vector<std::string>{keepaliveTopic});
    EXPECT_EQ(fakeBroker.client().subscriptionQos, 2);
}

TEST_F(Client, DisablesTheDelayOfSmallPackets) {
    fakeBroker.socket = socket(AF_INET, SOCK_STREAM, 0);
    const Mosquitto client("VEYRA_SERVER", "h", 1);
    int on = 0;
    socklen_t length = sizeof on;
    getsockopt(fakeBroker.socket, IPPROTO_TCP, TCP_NODELAY, &on, &length);
    EXPECT_NE(on, 0);
}

TEST_F(Client, IsConnectedUntilTheLinkIsLost) {
    Mosquitto client("VEYRA_SERVER", "h", 1);
    EXPECT_TRUE(client.isConnected());
    client.on_disconnect(7);
    EXPECT_FALSE(client.isConnected());
}

TEST_F(Client, IsNotConnectedWhenTheBrokerRefusesIt) {
    fakeBroker.accepts = false;
    const Mosquitto client("VEYRA_SERVER", "h", 1);
    EXPECT_FALSE(client.isConnected());
    EXPECT_TRUE(fakeBroker.client().subscriptions.empty());
}
