#include "VeyraServer/GatewaySecret.h"

#include <ZEP/System.h>
#include <ZEP/Text.h>

#include <string_view>

namespace {

constexpr std::size_t keyDigits = 32;
constexpr std::string_view separators = "-:";
constexpr std::string_view hexadecimalDigits = "0123456789abcdef";
constexpr std::string_view whiteSpace = " \t\n\v\f\r";

bool contains(std::string_view set, char character) {
    return set.find(character) != std::string_view::npos;
}

std::string trimmedMember(const Json::Value& object, const char* name) {
    const Json::Value& member = object[name];
    return member.isString() ? ZEP::Text::trim(member.asString()) : std::string();
}

std::string uuidPart(const std::string& id) {
    return id.substr(0, 8) + "-" + id.substr(8, 4) + "-" + id.substr(12, 4) + "-" +
           id.substr(16, 4) + "-" + id.substr(20);
}

} // namespace

std::optional<std::string> parseGatewayKey(const std::string& key) {
    std::string digits(keyDigits, '0'); // the padding of a short key
    for (const char character : key.substr(key.find_last_of(whiteSpace) + 1)) {
        if (contains(separators, character)) {
            continue;
        }
        if (!contains(hexadecimalDigits, character)) {
            return std::nullopt;
        }
        digits += character;
    }
    return digits.substr(digits.size() - keyDigits);
}

Json::Value readDeviceInformation(const std::string& runDirectory) {
    const std::string text = ZEP::System::readFile(runDirectory + "/config/device_info.json");
    Json::Value device;
    if (!parseFile(text, device) || !device.isObject()) {
        return Json::Value();
    }
    return device;
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
    if (!id) {
        return identity.deviceId;
    }
    return uuidPart(*id) + identity.deviceId;
}
