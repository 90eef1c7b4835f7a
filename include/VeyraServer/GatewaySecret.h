// The gateway's identity and the secret that signs its requests. Main thread, at startup.
#pragma once

#include "common/Json.h"

#include <optional>
#include <string>

// The parts of the secret: trimmed, with the key and the uuid in lower case. A part that is missing
// or is not a string is empty.
struct GatewayIdentity {
    std::string gatewayKey; // replaces the uuid when it is not empty
    std::string uuid;
    std::string deviceId;
};

// Reads the device information file below `runDirectory`. Returns null when the file is missing or
// is not a single complete JSON object.
Json::Value readDeviceInformation(const std::string& runDirectory);

GatewayIdentity readIdentity(const Json::Value& device, const Json::Value& network);

// The key as 32 hexadecimal digits, padded with leading zeros. Only the text right of the last
// white space counts, and only the last 32 digits of that text. Returns nothing when that text has
// a character that is neither a lower-case hexadecimal digit nor a separator ("-" or ":").
std::optional<std::string> parseGatewayKey(const std::string& key);

// Returns the secret. Its first part is "gatewayKey" of `network`, or "uuid" of `device` if there
// is no key, in the form of a UUID. "deviceId" follows directly. The first part is left out when
// the gateway key is not hexadecimal. Throws std::out_of_range when there is no key and the "uuid"
// is shorter than 20 characters.
std::string buildGatewaySecret(const Json::Value& device, const Json::Value& network);
