// Whether the secret that signs requests is made of the parts that the cloud knows.
#include "Crypto/Sha256.h"
#include "VeyraServer/GatewaySecret.h"
#include "checks/Checks.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

constexpr std::size_t keyDigits = 32;
constexpr std::size_t shortestUuid = 20; // with a shorter one the daemon aborts

std::size_t hexadecimalDigits(const std::string& text) {
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char character) {
        return std::strchr("0123456789abcdef", character) != nullptr && character != 0;
    }));
}

// The first 8 digits of the secret's SHA-256. Two people can compare them over the phone. Empty
// when no secret can be made.
std::string fingerprintOf(const Json::Value& device, const Json::Value& network) {
    try {
        const std::string secret = buildGatewaySecret(device, network);
        return sha256Hex(secret.data(), secret.data() + secret.size()).substr(0, 8);
    } catch (const std::out_of_range&) {
        return {};
    }
}

Findings judgeDeviceFile(const Gateway& gateway, const std::string& path, int error) {
    if (error == EACCES && !gateway.isRoot) {
        return {
            unknown("identity.hidden", path, std::string(std::strerror(error)) + ".", runAsRoot)};
    }
    if (error != 0) {
        return {
            bad("identity.device-unreadable", path, std::string(std::strerror(error)) + ".",
                thenRestart("Check the firmware of the gateway, which writes this file. The user " +
                            gateway.user.name + " must be able to read the file."))};
    }
    if (!gateway.device.isObject()) {
        return {bad("identity.device-invalid", path,
                    "The file is not a complete JSON object, or it begins with a byte order mark. "
                    "The daemon treats the file as missing.",
                    thenRestart("Correct the file: {\"uuid\": \"...\", \"deviceId\": \"...\"}."))};
    }
    return {};
}

Findings judgeKey(const std::string& key) {
    const std::string again = thenRestart("Copy the key again: 32 hexadecimal digits.");
    const std::string subject = "network.gatewayKey";
    const auto parsed = parseGatewayKey(key);
    if (!parsed) {
        return {bad("identity.key-not-hexadecimal", subject,
                    "The key contains a character that is not hexadecimal. The daemon signs with "
                    "the deviceId alone.",
                    again)};
    }
    if (hexadecimalDigits(key) > keyDigits ||
        key.find_first_of(" \t\n\v\f\r") != std::string::npos) {
        return {bad("identity.key-too-long", subject,
                    "The key contains a space, or it has more than 32 digits. The daemon uses only "
                    "the end of the key.",
                    again)};
    }
    if (parsed->find_first_not_of('0') == std::string::npos) {
        return {bad("identity.key-placeholder", subject,
                    "The key is all zeros, like the placeholder in the package.",
                    thenRestart("Write the gateway's own key, or null to use the device's uuid."))};
    }
    return {};
}

Findings judgeUuid(const std::string& uuid) {
    const std::string fix = thenRestart(
        "Write the uuid as 32 hexadecimal digits without dashes, or set network.gatewayKey.");
    if (uuid.size() < shortestUuid) {
        return {bad("identity.uuid-missing", "uuid of the device",
                    "The uuid is missing or too short, and network.gatewayKey is not set: the "
                    "daemon aborts at startup.",
                    fix)};
    }
    if (uuid.size() != keyDigits || hexadecimalDigits(uuid) != keyDigits) {
        return {bad("identity.uuid-unusual", "uuid of the device",
                    "The uuid is not 32 hexadecimal digits. The daemon signs with a secret that "
                    "the cloud does not know.",
                    fix)};
    }
    return {};
}

void append(Findings& found, const Findings& more) {
    found.insert(found.end(), more.begin(), more.end());
}

// Reads the file as the daemon does: anything other than one JSON object counts as missing. Returns
// errno, or 0.
int readDevice(Gateway& gateway, const std::string& path) {
    std::string text;
    const int error = gateway.readAsService(path, text);
    if (error != 0 || !parseFile(text, gateway.device) || !gateway.device.isObject()) {
        gateway.device = Json::Value();
    }
    return error;
}

// Judges the first part of the secret: the key, or the uuid if there is no key.
void judgeFirstPart(const Gateway& gateway, const GatewayIdentity& identity, Findings& found) {
    if (!identity.gatewayKey.empty()) {
        append(found, judgeKey(identity.gatewayKey));
    } else if (gateway.device.isObject()) {
        append(found, judgeUuid(identity.uuid));
    } else {
        found.front().cause += " network.gatewayKey is not set: the daemon aborts at startup.";
    }
}

} // namespace

Findings checkIdentity(Gateway& gateway) {
    const std::string path = gateway.runDirectory + "/config/device_info.json";
    const Json::Value& network = gateway.configuration["network"];
    Findings found = judgeDeviceFile(gateway, path, readDevice(gateway, path));
    if (!found.empty() && found.front().outcome == Outcome::UNKNOWN) {
        return found;
    }
    const Json::Value& key = network["gatewayKey"];
    if (!key.isNull() && !key.isString()) {
        found.push_back(
            bad("identity.key-no-text", "network.gatewayKey",
                "The key is not a string, so the daemon uses the device's uuid instead.",
                thenRestart("Write the key in quotes.")));
    }
    const GatewayIdentity identity = readIdentity(gateway.device, network);
    judgeFirstPart(gateway, identity, found);
    if (gateway.device.isObject() && identity.deviceId.empty()) {
        found.push_back(bad("identity.device-id-missing", "deviceId of the device",
                            "The deviceId is missing, empty or not a string. The daemon therefore "
                            "signs with a secret that the cloud does not know.",
                            thenRestart("Add deviceId to " + path + ".")));
    }
    gateway.fingerprint = fingerprintOf(gateway.device, network);
    if (found.empty()) {
        found.push_back(ok("fingerprint " + gateway.fingerprint));
    }
    return found;
}
