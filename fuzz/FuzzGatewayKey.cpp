// Fuzzes the gateway key of the configuration.
#include "VeyraServer/GatewaySecret.h"

#include <cstdint>
#include <cstdlib>
#include <regex>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Json::Value device;
    device["uuid"] = "00000000-0000-0000-0000-000000000000";
    device["deviceId"] = "|";
    Json::Value network;
    network["gatewayKey"] = std::string(reinterpret_cast<const char*>(data), size);
    const std::string secret = buildGatewaySecret(device, network);
    // The secret has a complete UUID or none, followed by the device id. If the key is empty, the
    // uuid of the device replaces it. This uuid has dashes already and more are inserted, so this
    // part is longer than a UUID.
    static const std::regex allowed("(|[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}|.{40})\\|");
    if (!std::regex_match(secret, allowed)) {
        std::abort();
    }
    return 0;
}
