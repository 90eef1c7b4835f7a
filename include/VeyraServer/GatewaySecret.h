// The gateway's identity, which signs its requests. Main thread, at start-up.
#pragma once

#include "common/Json.h"

#include <string>

// The device information file below `runDirectory` as an object; null when it is missing or is not
// one whole JSON object.
Json::Value readDeviceInformation(const std::string& runDirectory);

// The UUID-like text of "gatewayKey" (in `network`) or else of the device's "uuid", followed
// directly by the device's "deviceId". A gateway key that is not hexadecimal leaves the first part
// out. Throws std::out_of_range when there is no key and the "uuid" is shorter than 20 characters.
std::string buildGatewaySecret(const Json::Value& device, const Json::Value& network);
