// The gateway's identity, which signs its requests. Main thread, at start-up.
#pragma once

#include "common/Json.h"

#include <optional>
#include <string>

// What the secret is made of, trimmed, key and uuid lowered; empty where there is no string.
struct GatewayIdentity {
    std::string gatewayKey; // when there is one, it takes the place of the uuid
    std::string uuid;
    std::string deviceId;
};

// The device information file below `runDirectory` as an object; null when it is missing or is not
// one whole JSON object.
Json::Value readDeviceInformation(const std::string& runDirectory);

GatewayIdentity readIdentity(const Json::Value& device, const Json::Value& network);

// The 32 digits of a key in lower case, with zeros in front of fewer; nothing when a character is
// neither a hexadecimal digit nor a separator. Only what is right of the last white space counts,
// and of that the last 32 digits.
std::optional<std::string> parseGatewayKey(const std::string& key);

// The UUID-like text of "gatewayKey" (in `network`) or else of the device's "uuid", followed
// directly by the device's "deviceId". A gateway key that is not hexadecimal leaves the first part
// out. Throws std::out_of_range when there is no key and the "uuid" is shorter than 20 characters.
std::string buildGatewaySecret(const Json::Value& device, const Json::Value& network);
