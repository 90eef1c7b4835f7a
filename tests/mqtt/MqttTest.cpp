// The broker worker and its client against a fake clock and a fake broker library: what they ask of
// it, to the millisecond.
#include "common/ProcessState.h"
#include "mqtt/BrokerWorker.h"
#include "mqtt/LinkHealth.h"
#include "mqtt/Mosquitto.h"
#include "mqtt/MqttQueue.h"
#include "support/Fakes.h"

#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace {

struct Worker : testing::Test {
    Worker() {
        fakeBroker = {};
        fakeNowMs = lastKeepaliveSent = shutdownRequested = 0;
    }
};
struct Client : Worker {};

using Calls = std::vector<std::string>;

Json::Value brokerSection(const std::string& members) {
    Json::Value section;
    EXPECT_TRUE(Json::Reader().parse("{\"enabled\":true" + members + "}", section));
    return section;
}

// What a worker asks within `ms` of its start, after what start-up does; `atPause` is called
// whenever it pauses, with the time since the start.
Calls worker(
    unsigned ms, const std::function<void(unsigned)>& atPause = [](unsigned) {}) {
    fakeBroker.startMs = fakeNowMs = 700000;
    roleVeyra = true;
    configurationForStartup()["mqtt"] = brokerSection("");
    delete mqttClient;
    mqttClient = createMqttClient();
    fakeBroker.calls.clear();
    afterSleep = [&] {
        fakeBroker.deliverEchoes();
        const auto nowMs = static_cast<unsigned>(fakeNowMs - fakeBroker.startMs);
        atPause(nowMs);
        shutdownRequested = nowMs >= ms ? 1 : 0;
    };
    MqttThreadFunction(nullptr);
    return fakeBroker.calls;
}

const std::string keepalive = "publish lora/veyra_keepalive [] 1";

Calls rebuilt(unsigned ms) {
    const std::string now = std::to_string(ms) + " ";
    const std::string later = std::to_string(ms + 1000) + " ";
    return {now + "disconnect",
            now + "disconnect",
            now + "loop_stop by force",
            now + "destroyed",
            later + "client VEYRA_SERVER clean",
            later + "connect 127.0.0.1:1883 5",
            later + "subscribe lora/veyra_keepalive 2",
            std::to_string(ms + 3000) + " " + keepalive};
}

// One every five seconds and a pass.
Calls keepalives(unsigned untilMs) {
    Calls calls;
    for (unsigned ms = 100; ms < untilMs; ms += 5010) {
        calls.push_back(std::to_string(ms) + " " + keepalive);
    }
    return calls;
}

Calls operator+(Calls first, const Calls& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

} // namespace

TEST_F(Worker, KeepsAHealthyLinkWithAKeepaliveEveryFiveSeconds) {
    EXPECT_EQ(worker(40000), keepalives(40000));
}

TEST_F(Worker, RebuildsTheClientAfterThirtySecondsWithoutAnEchoAndEveryNineThen) {
    fakeBroker.echoes = false;
    EXPECT_EQ(worker(40000),
              keepalives(30000) + rebuilt(30010) + Calls{"39010 " + keepalive} + rebuilt(39010));
}

TEST_F(Worker, TrustsANewClientThatHearsItsKeepalive) {
    fakeBroker.echoes = false;
    const Calls calls = worker(50000, [](unsigned ms) { fakeBroker.echoes = ms > 30000; });
    EXPECT_EQ(Calls(calls.end() - 4, calls.end()),
              (Calls{"33010 " + keepalive, "39010 " + keepalive, "44020 " + keepalive,
                     "49030 " + keepalive}));
}

TEST_F(Worker, RebuildsAtOnceWhatDoesNotConnectAndPublishesTheQueueWhenItDoes) {
    fakeBroker.accepts = false;
    mqttQueue.push_back(nullptr); // is skipped
    const std::string payload("a\0b", 3);
    EXPECT_TRUE(enqueueMqttMessage("tag", "veyra", payload.data(), 3));
    EXPECT_TRUE(enqueueMqttMessage("", "other", "", 0));
    const Calls wanted = {"9100 " + keepalive, "9100 publish lora/veyra [" + payload + "] 1",
                          "9100 publish lora/other [] 1"};
    EXPECT_EQ(worker(9200, [](unsigned) { fakeBroker.accepts = true; }),
              Calls{"100 " + keepalive} + rebuilt(100) + wanted);
}

TEST_F(Worker, TakesAClockThatWentBackForHealthy) {
    EXPECT_TRUE(linkIsHealthy(true, 9000, 10000) && keepaliveIsDue(9999, 10000));
}

TEST_F(Client, TakesHostPortAndCredentialsInPairs) {
    const std::array<const char*, 3> cases[] = {
        {R"(,"host":"h","port":1)", "", "0 connect h:1 5"},
        {R"(,"host":"h","username":"u")", "", "0 connect 127.0.0.1:1883 5"},
        {R"(,"port":1,"password":"p")", "", "0 connect 127.0.0.1:1883 5"},
        {R"(,"username":"u","password":"p")", "0 login u p", "0 connect 127.0.0.1:1883 5"}};
    for (const auto& [members, login, connect] : cases) {
        configurationForStartup()["mqtt"] = brokerSection(members);
        fakeBroker.calls.clear();
        delete createMqttClient();
        const bool anonymous = fakeBroker.calls.at(1) == connect;
        EXPECT_EQ(anonymous ? "" : fakeBroker.calls.at(1), login) << members;
        EXPECT_EQ(fakeBroker.calls.at(anonymous ? 1 : 2), connect) << members;
    }
}

TEST_F(Client, SendsWithoutDelayAndKnowsWhenTheLinkIsLost) {
    fakeBroker.socket = socket(AF_INET, SOCK_STREAM, 0);
    Mosquitto client("VEYRA_SERVER-2", "h", 1);
    EXPECT_EQ(fakeBroker.subscription, "lora/veyra_keepalive") << "the prefix decides";
    int on = 0;
    socklen_t length = sizeof on;
    getsockopt(fakeBroker.socket, IPPROTO_TCP, TCP_NODELAY, &on, &length);
    EXPECT_NE(on, 0);
    EXPECT_TRUE(client.isConnected());
    client.on_disconnect(7);
    EXPECT_FALSE(client.isConnected());
}
