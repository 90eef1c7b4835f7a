#include "VeyraServer/GatewaySecret.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <unistd.h>

namespace {

std::string secretOf(const std::string& deviceJson, const std::string& networkJson) {
    const std::filesystem::path folder = testing::TempDir() + "device" + std::to_string(getpid());
    std::filesystem::create_directories(folder / "config");
    std::ofstream(folder / "config/device_info.json") << deviceJson;
    const Json::Value device = readDeviceInformation(folder);
    std::filesystem::remove_all(folder);
    Json::Value network;
    EXPECT_TRUE(Json::Reader().parse(networkJson, network));
    return buildGatewaySecret(device, network);
}

} // namespace

TEST(GatewaySecret, IsBuiltFromTheGatewayKey) {
    const std::pair<const char*, const char*> cases[] = {
        {"00-11-22-33-44-55-66-77-88-99-AA-bb-cc-dd-ee-FF", "00112233-4455-6677-8899-aabbccddeeff"},
        {" 00:112233445566778899aabbccddeeff\\t", "00112233-4455-6677-8899-aabbccddeeff"},
        {"ffffa0112233445566778899aabbccddeeff", "a0112233-4455-6677-8899-aabbccddeeff"},
        {"abc", "00000000-0000-0000-0000-000000000abc"},
        {"no key 12", "00000000-0000-0000-0000-000000000012"},
        {"g00112233445566778899aabbccddeeff", ""},
    };
    for (const auto& [key, uuidPart] : cases) {
        EXPECT_EQ(secretOf(R"({"uuid":"ignored","deviceId":"\n dev "})",
                           std::string(R"({"gatewayKey":")") + key + "\"}"),
                  std::string(uuidPart) + "dev");
    }
}

TEST(GatewaySecret, FallsBackToTheDeviceUuidAsItStands) {
    EXPECT_EQ(secretOf(R"({"uuid":" 00112233445566778899AABBCCDDEEFF ","deviceId":7})", "null"),
              "00112233-4455-6677-8899-aabbccddeeff");
    EXPECT_EQ(
        secretOf(R"({"uuid":"0123456789abcdefghij","deviceId":"d"})", R"({"gatewayKey":" "})"),
        "01234567-89ab-cdef-ghij-d");
    const std::string full = R"({"uuid":"00112233445566778899AABBCCDDEEFF")";
    for (const std::string& device : {std::string("null"), full + ",", "[" + full + "}]",
                                      std::string(R"({"uuid":"0123456789abcdefghi"})"),
                                      full + R"(,"x":)" + std::string(2000, '[')}) {
        EXPECT_THROW(secretOf(device, R"({"gatewayKey":5})"), std::out_of_range) << device;
    }
}
