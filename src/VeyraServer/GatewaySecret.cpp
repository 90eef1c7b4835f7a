#include "VeyraServer/GatewaySecret.h"

#include "common/Hex.h"

#include <ZEP/System.h>
#include <ZEP/Text.h>

#include <array>
#include <cstdint>

namespace {

constexpr std::size_t keyBytes = 16;

std::string trimmedMember(const Json::Value& object, const char* name) {
    const Json::Value& member = object[name];
    return member.isString() ? ZEP::Text::trim(member.asString()) : std::string();
}

std::optional<unsigned> hexDigit(char character) {
    if (character >= '0' && character <= '9') {
        return static_cast<unsigned>(character - '0');
    }
    if (character >= 'a' && character <= 'f') {
        return static_cast<unsigned>(character - 'a' + 10);
    }
    return std::nullopt;
}

bool isWhiteSpace(char character) {
    return ZEP::Text::trim(std::string(1, character)).empty();
}

std::string uuidPart(const std::string& id) {
    return id.substr(0, 8) + "-" + id.substr(8, 4) + "-" + id.substr(12, 4) + "-" +
           id.substr(16, 4) + "-" + id.substr(20);
}

} // namespace

// From the right end, so that a short key has leading zeros.
std::optional<std::string> parseGatewayKey(const std::string& key) {
    std::array<std::uint8_t, keyBytes> bytes{};
    std::size_t digits = 0;
    for (auto character = key.rbegin(); character != key.rend() && !isWhiteSpace(*character);
         ++character) {
        if (*character == '-' || *character == ':') {
            continue;
        }
        const std::optional<unsigned> digit = hexDigit(*character);
        if (!digit) {
            return std::nullopt;
        }
        if (digits < 2 * keyBytes) {
            const unsigned shift = digits % 2 == 0 ? 0 : 4;
            auto& byte = bytes[keyBytes - 1 - digits / 2];
            byte = static_cast<std::uint8_t>(byte | (*digit << shift));
        }
        ++digits;
    }
    return hexText(bytes.data(), bytes.size());
}

Json::Value readDeviceInformation(const std::string& runDirectory) {
    const std::string text = ZEP::System::readFile(runDirectory + "/config/device_info.json");
    Json::Value device;
    return parseFile(text, device) && device.isObject() ? device : Json::Value();
}

GatewayIdentity readIdentity(const Json::Value& device, const Json::Value& network) {
    return {ZEP::Text::toLowerCase(trimmedMember(network, "gatewayKey")),
            ZEP::Text::toLowerCase(trimmedMember(device, "uuid")),
            trimmedMember(device, "deviceId")};
}

std::string buildGatewaySecret(const Json::Value& device, const Json::Value& network) {
    const GatewayIdentity identity = readIdentity(device, network);
    if (identity.gatewayKey.empty()) {
        return uuidPart(identity.uuid) + identity.deviceId;
    }
    const std::optional<std::string> id = parseGatewayKey(identity.gatewayKey);
    return (id ? uuidPart(*id) : std::string()) + identity.deviceId;
}
