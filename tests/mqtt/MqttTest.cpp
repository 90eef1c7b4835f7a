#include "mqtt/MqttQueue.h"
#include "mqtt/Supervision.h"

#include <gtest/gtest.h>

#include <cstring>

TEST(MqttQueue, KeepsOrderAndCopies) {
    std::string payload("a\0b", 3);
    EXPECT_TRUE(enqueueMqttMessage("tag", "veyra", payload.data(), 3));
    payload.assign("XXX");
    EXPECT_TRUE(enqueueMqttMessage("", "other", "", 0));
    ASSERT_EQ(mqttQueue.size(), 2U);
    EXPECT_EQ(std::memcmp(mqttQueue[0]->payload.get(), "a\0b\0", 4), 0);
    EXPECT_EQ(mqttQueue[0]->length, 3);
    EXPECT_EQ(mqttQueue[0]->tag, "tag");
    EXPECT_EQ(mqttQueue[1]->topic, "other");
    EXPECT_EQ(mqttQueue[1]->length, 0);
    EXPECT_EQ(mqttQueue[1]->payload[0], 0);
    mqttQueue.clear();
}

TEST(Supervision, KeepaliveIsDueAfterMoreThanFiveSeconds) {
    EXPECT_FALSE(keepaliveIsDue(15000, 10000));
    EXPECT_TRUE(keepaliveIsDue(15001, 10000));
    EXPECT_TRUE(keepaliveIsDue(9999, 10000)) << "a clock that went back sends at once";
}

TEST(Supervision, LinkIsHealthyWhileTheEchoIsYoungerThanThirtySeconds) {
    EXPECT_TRUE(linkIsHealthy(true, 40000, 10000));
    EXPECT_FALSE(linkIsHealthy(true, 40001, 10000));
    EXPECT_TRUE(linkIsHealthy(true, 9000, 10000)) << "the clock went back";
    EXPECT_FALSE(linkIsHealthy(false, 10000, 10000));
}
