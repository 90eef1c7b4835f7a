// The broker worker against a fake clock and a fake broker library, to the millisecond.
#include "mqtt/BrokerWorker.h"

#include "common/ProcessState.h"
#include "mqtt/LinkHealth.h"
#include "mqtt/Mosquitto.h"
#include "mqtt/MqttQueue.h"
#include "support/Fakes.h"

#include <gtest/gtest.h>

namespace {

using Publications = std::vector<Publication>;

Publication keepaliveAt(std::uint64_t ms) {
    return {ms, keepaliveTopic, ""};
}

struct Worker : testing::Test {
    Worker() {
        fakeBroker = {};
        fakeBroker.startMs = fakeNowMs = 700000;
        lastKeepaliveSent = 0;
        shutdownRequested = 0;
        roleVeyra = true;
        Json::Value& mqtt = configurationForStartup()["mqtt"];
        mqtt = Json::objectValue;
        mqtt["enabled"] = true;
    }
    ~Worker() override {
        delete mqttClient;
        mqttClient = nullptr;
    }

    // Runs the worker like startup does and stops it after `ms`. `atPause` is called at each of its
    // pauses, with the time since the start.
    static void runFor(
        std::uint64_t ms,
        const std::function<void(std::uint64_t)>& atPause = [](std::uint64_t) {}) {
        mqttClient = createMqttClient();
        afterSleep = [&] {
            fakeBroker.deliverEchoes();
            atPause(fakeBroker.elapsedMs());
            shutdownRequested = fakeBroker.elapsedMs() >= ms ? 1 : 0;
        };
        MqttThreadFunction(nullptr);
    }

    // When clients were created; the first one at startup.
    static std::vector<std::uint64_t> creationTimes() {
        std::vector<std::uint64_t> times;
        for (const ClientRecord& client : fakeBroker.clients) {
            times.push_back(client.createdMs);
        }
        return times;
    }
};

using Times = std::vector<std::uint64_t>;

} // namespace

TEST_F(Worker, ReplacesTheClientAfter30SecondsWithoutAnEchoThenEvery9Seconds) {
    fakeBroker.echoes = false;
    runFor(60000);
    EXPECT_EQ(creationTimes(), (Times{0, 31010, 40010, 49010, 58010}));
}

TEST_F(Worker, DisconnectsAClientAndStopsItsThreadBeforeDestroyingIt) {
    fakeBroker.echoes = false;
    runFor(32000);
    EXPECT_EQ(fakeBroker.clients[0].disconnects, 2);
    EXPECT_TRUE(fakeBroker.clients[0].threadCancelled);
    EXPECT_EQ(fakeBroker.clients[0].destroyedMs, 30010U);
}

// A keepalive is due after five seconds; the pause between two passes adds 10 ms.
TEST_F(Worker, KeepsANewClientWhoseEchoArrives) {
    fakeBroker.echoes = false;
    runFor(50000, [](std::uint64_t ms) { fakeBroker.echoes = ms > 30000; });
    EXPECT_EQ(creationTimes(), (Times{0, 31010}));
    const Publications& all = fakeBroker.publications;
    EXPECT_EQ(Publications(all.end() - 4, all.end()),
              (Publications{keepaliveAt(33010), keepaliveAt(39010), keepaliveAt(44020),
                            keepaliveAt(49030)}));
}

TEST_F(Worker, ReplacesAClientThatIsNotConnectedAtTheFirstCheck) {
    fakeBroker.accepts = false;
    runFor(10000);
    EXPECT_EQ(fakeBroker.clients[0].destroyedMs, 100U);
    EXPECT_EQ(creationTimes(), (Times{0, 1100, 10100}));
}

TEST_F(Worker, PublishesTheQueueInOrderWithoutNullEntriesOnceTheLinkIsHealthy) {
    fakeBroker.accepts = false;
    const std::string payload("a\0b", 3);
    EXPECT_TRUE(enqueueMqttMessage("tag", "veyra", payload.data(), 3));
    mqttQueue.push_back(nullptr);
    EXPECT_TRUE(enqueueMqttMessage("", "other", "", 0));
    runFor(9200, [](std::uint64_t) { fakeBroker.accepts = true; });
    EXPECT_EQ(fakeBroker.publications, (Publications{keepaliveAt(100),
                                                     keepaliveAt(3100),
                                                     keepaliveAt(9100),
                                                     {9100, "lora/veyra", payload},
                                                     {9100, "lora/other", ""}}));
}

TEST(LinkHealth, AcceptsAClockThatWentBackwards) {
    EXPECT_TRUE(linkIsHealthy(true, 9000, 10000));
    EXPECT_TRUE(keepaliveIsDue(9999, 10000));
}
