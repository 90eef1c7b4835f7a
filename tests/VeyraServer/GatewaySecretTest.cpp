#include "VeyraServer/GatewaySecret.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <unistd.h>

namespace {

std::string secretOf(const std::string& deviceJson, const std::string& networkJson) {
    Json::Value device;
    Json::Value network;
    Json::Reader reader;
    EXPECT_TRUE(reader.parse(deviceJson, device) && reader.parse(networkJson, network));
    return buildGatewaySecret(device, network);
}

} // namespace

TEST(GatewaySecret, IsBuiltFromTheGatewayKey) {
    const std::pair<const char*, const char*> cases[] = {
        {"00-11-22-33-44-55-66-77-88-99-AA-bb-cc-dd-ee-FF", "00112233-4455-6677-8899-aabbccddeeff"},
        {" 00:112233445566778899aabbccddeeff\\t", "00112233-4455-6677-8899-aabbccddeeff"},
        {"ffff00112233445566778899aabbccddeeff", "00112233-4455-6677-8899-aabbccddeeff"},
        {"abc", "00000000-0000-0000-0000-000000000abc"},
        {"no key 12", "00000000-0000-0000-0000-000000000012"},
        {"g00112233445566778899aabbccddeeff", ""},
        {"12x4", ""},
    };
    for (const auto& [key, uuidPart] : cases) {
        EXPECT_EQ(secretOf(R"({"uuid":"ignored","deviceId":"\n dev "})",
                           std::string(R"({"gatewayKey":")") + key + "\"}"),
                  std::string(uuidPart) + "dev")
            << key;
    }
}

TEST(GatewaySecret, FallsBackToTheDeviceUuidAsItStands) {
    EXPECT_EQ(secretOf(R"({"uuid":" 00112233445566778899AABBCCDDEEFF ","deviceId":7})", "null"),
              "00112233-4455-6677-8899-aabbccddeeff");
    EXPECT_EQ(
        secretOf(R"({"uuid":"0123456789abcdefghij","deviceId":"d"})", R"({"gatewayKey":" "})"),
        "01234567-89ab-cdef-ghij-d");
    for (const char* device :
         {"null", R"({"uuid":"1234567"})", R"({"uuid":"0123456789abcdefghi"})"}) {
        EXPECT_THROW(secretOf(device, R"({"gatewayKey":5})"), std::out_of_range) << device;
    }
}

TEST(GatewaySecret, ReadsOnlyAWholeDeviceInformationObject) {
    const std::filesystem::path folder = testing::TempDir() + "device" + std::to_string(getpid());
    EXPECT_TRUE(readDeviceInformation(folder).isNull());
    std::filesystem::create_directories(folder / "config");
    for (const char* text : {"", "[1]", R"({"uuid":"u",)", R"("uuid")", R"({"uuid":"u"})"}) {
        std::ofstream(folder / "config/device_info.json") << text;
        EXPECT_EQ(readDeviceInformation(folder).isNull(),
                  std::string_view(text) != R"({"uuid":"u"})")
            << text;
    }
    std::filesystem::remove_all(folder);
}
