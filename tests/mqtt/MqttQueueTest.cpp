#include "mqtt/MqttQueue.h"

#include <gtest/gtest.h>

#include <cstring>

TEST(MqttQueue, KeepsOrderAndCopies) {
    mqttQueue.clear();
    std::string payload = "first";
    EXPECT_TRUE(enqueueMqttMessage("tag", "veyra", payload.data(), 5));
    payload.assign("XXXXX");
    EXPECT_TRUE(enqueueMqttMessage("", "other", "\0b", 2));
    EXPECT_TRUE(enqueueMqttMessage("", "veyra", "", 0));
    ASSERT_EQ(mqttQueue.size(), 3U);

    EXPECT_STREQ(mqttQueue[0]->payload.get(), "first");
    EXPECT_EQ(mqttQueue[0]->length, 5);
    EXPECT_EQ(mqttQueue[0]->tag, "tag");
    EXPECT_EQ(mqttQueue[1]->topic, "other");
    EXPECT_EQ(std::memcmp(mqttQueue[1]->payload.get(), "\0b\0", 3), 0);
    EXPECT_EQ(mqttQueue[2]->length, 0);
    EXPECT_EQ(mqttQueue[2]->payload[0], 0);
    mqttQueue.clear();
}
