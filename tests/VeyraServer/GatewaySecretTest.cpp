#include "VeyraServer/GatewaySecret.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <unistd.h>

namespace {

std::string secretOf(const Json::Value& uuid, const Json::Value& deviceId, const Json::Value& key) {
    Json::Value device;
    device["uuid"] = uuid;
    device["deviceId"] = deviceId;
    Json::Value network;
    network["gatewayKey"] = key;
    return buildGatewaySecret(device, network);
}

} // namespace

TEST(GatewaySecret, IsBuiltFromTheGatewayKey) {
    struct Case {
        const char* key;
        const char* secret;
    };
    const Case cases[] = {
        {"00-11-22-33-44-55-66-77-88-99-AA-bb-cc-dd-ee-FF",
         "00112233-4455-6677-8899-aabbccddeeffdev"},
        {" 00:11:22:33:44:55:66:77:88:99:aa:bb:cc:dd:ee:ff\t",
         "00112233-4455-6677-8899-aabbccddeeffdev"},
        {"abc", "00000000-0000-0000-0000-000000000abcdev"},
        {"ffff00112233445566778899aabbccddeeff", "00112233-4455-6677-8899-aabbccddeeffdev"},
        {"no key 12", "00000000-0000-0000-0000-000000000012dev"},
        {"g00112233445566778899aabbccddeeff", "dev"},
        {"12x4", "dev"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(secretOf("ignored", "\n dev ", c.key), c.secret) << c.key;
    }
}

TEST(GatewaySecret, FallsBackToTheDeviceUuidAsItStands) {
    const std::string digits = " 00112233445566778899AABBCCDDEEFF ";
    EXPECT_EQ(secretOf(digits, "d", Json::Value()), "00112233-4455-6677-8899-aabbccddeeffd");
    EXPECT_EQ(secretOf(digits, 7, "  "), "00112233-4455-6677-8899-aabbccddeeff");
    EXPECT_EQ(secretOf("0123456789abcdefghij", "d", 5), "01234567-89ab-cdef-ghij-d");
    EXPECT_EQ(secretOf("00112233-4455-66", "d", "1"), "00000000-0000-0000-0000-000000000001d");
}

TEST(GatewaySecret, RefusesAShortIdentity) {
    for (const char* uuid : {"", "1234567", "0123456789abcdefghi"}) {
        EXPECT_THROW(secretOf(uuid, "d", Json::Value()), std::out_of_range) << uuid;
    }
    EXPECT_THROW(buildGatewaySecret(Json::Value(), Json::Value()), std::out_of_range);
}

TEST(GatewaySecret, ReadsOnlyAWholeDeviceInformationObject) {
    const std::filesystem::path folder = testing::TempDir() + "device-" + std::to_string(getpid());
    std::filesystem::create_directories(folder / "config");
    const auto readBack = [&](const std::string& text) {
        std::ofstream(folder / "config/device_info.json") << text;
        return readDeviceInformation(folder);
    };
    EXPECT_EQ(readBack(R"({"uuid":"u"})")["uuid"].asString(), "u");
    for (const char* text : {"", "[1]", R"({"uuid":"u",)", R"("uuid")"}) {
        EXPECT_TRUE(readBack(text).isNull()) << text;
    }
    std::filesystem::remove_all(folder);
    EXPECT_TRUE(readDeviceInformation(folder).isNull());
}
