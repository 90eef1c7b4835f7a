#include "VeyraServer/GatewaySecret.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace {

const std::string key = "00112233445566778899aabbccddeeff";
const std::string uuid = "00112233-4455-6677-8899-aabbccddeeff";

struct Secret : testing::Test {
    std::string build() const { return buildGatewaySecret(device, network); }

    Json::Value device;
    Json::Value network;
};

} // namespace

TEST(GatewayKey, IsParsedFromItsEnd) {
    EXPECT_EQ(parseGatewayKey("00:11-22334455:66778899aabbccddee-ff"), key) << "separators";
    EXPECT_EQ(parseGatewayKey("fffaa" + key), key) << "more than 32 digits";
    EXPECT_EQ(parseGatewayKey("abc"), "00000000000000000000000000000abc");
    EXPECT_EQ(parseGatewayKey("no key\t12"), "00000000000000000000000000000012");
    EXPECT_EQ(parseGatewayKey("g" + key), std::nullopt) << "not hexadecimal";
}

TEST_F(Secret, ConsistsOfKeyAndDeviceId) {
    network["gatewayKey"] = " 00112233445566778899AABBCCDDEEFF\t";
    device["uuid"] = "not used";
    device["deviceId"] = "\n Dev";
    EXPECT_EQ(build(), uuid + "Dev");
    network["gatewayKey"] = "not hexadecimal";
    EXPECT_EQ(build(), "Dev");
}

TEST_F(Secret, ConsistsOfUuidAndDeviceIdWithoutAKey) {
    network["gatewayKey"] = " ";
    device["uuid"] = " 00112233445566778899AABBCCDDEEFFLMN ";
    device["deviceId"] = 7; // not a string
    EXPECT_EQ(build(), uuid + "lmn");
}

TEST_F(Secret, NeedsAUuidOfAtLeast20Characters) {
    device["uuid"] = "0123456789abcdefghij";
    EXPECT_EQ(build(), "01234567-89ab-cdef-ghij-");
    device["uuid"] = "0123456789abcdefghi";
    EXPECT_THROW(build(), std::out_of_range);
}
