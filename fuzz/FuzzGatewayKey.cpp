// Fuzzes the gateway key of the configuration.
#include "VeyraServer/GatewaySecret.h"

#include <cstdint>
#include <cstdlib>

namespace {

bool isUuid(const std::string& text) {
    static const std::string form = "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx";
    for (std::size_t i = 0; i < form.size(); ++i) {
        const char* const allowed = form[i] == 'x' ? "0123456789abcdef" : "-";
        if (text.find_first_of(allowed, i) != i) {
            return false;
        }
    }
    return text.size() == form.size();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const Json::Value device = [] {
        Json::Value value;
        value["uuid"] = "00000000-0000-0000-0000-000000000000";
        value["deviceId"] = "|";
        return value;
    }();
    Json::Value network;
    network["gatewayKey"] = std::string(reinterpret_cast<const char*>(data), size);
    const std::string secret = buildGatewaySecret(device, network);
    // A whole UUID or none, and always the device's id. The "uuid" is cut like a key without
    // dashes, so that it is longer.
    const std::string uuid = secret.substr(0, secret.size() - 1);
    if (secret.back() != '|' || !(uuid.empty() || isUuid(uuid) || uuid.size() == 40)) {
        std::abort();
    }
    return 0;
}
