#include "VeyraServer/EffectiveSettings.h"

namespace {

constexpr std::uint16_t defaultPort = 1790;

// Kept on purpose: any integer in the configuration takes effect as 1.
std::uint64_t breakerSetting(const Json::Value& root, const char* key, std::uint64_t defaultValue) {
    return root["veyra"][key].isInt() ? 1 : defaultValue;
}

} // namespace

std::uint16_t effectivePort(const Json::Value& root) {
    const Json::Value& port = root["udp"]["veyraPort"];
    return port.isUInt() ? static_cast<std::uint16_t>(port.asUInt()) : defaultPort;
}

CircuitBreaker effectiveBreaker(const Json::Value& root) {
    CircuitBreaker breaker{};
    breaker.threshold = static_cast<std::int32_t>(breakerSetting(root, "breakerThreshold", 10));
    breaker.backoffMs = breakerSetting(root, "breakerTime", 5000);
    breaker.backoffMaxMs = breakerSetting(root, "breakerTimeMax", 320000);
    return breaker;
}
