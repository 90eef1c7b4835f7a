#include "VeyraServer/EffectiveSettings.h"

namespace {

// An integer in the configuration takes effect as 1, the outcome of the test, whatever its value.
// Kept on purpose.
std::uint64_t breakerSetting(const Json::Value& root, const char* key, std::uint64_t defaultValue) {
    const bool integer = root["veyra"][key].isInt();
    return integer ? static_cast<std::uint64_t>(integer) : defaultValue;
}

} // namespace

std::uint16_t effectivePort(const Json::Value& root) {
    const Json::Value& port = root["udp"]["veyraPort"];
    return port.isUInt() ? static_cast<std::uint16_t>(port.asUInt()) : std::uint16_t{1790};
}

CircuitBreaker effectiveBreaker(const Json::Value& root) {
    CircuitBreaker breaker{};
    breaker.threshold = static_cast<std::int32_t>(breakerSetting(root, "breakerThreshold", 10));
    breaker.backoffMs = breakerSetting(root, "breakerTime", 5000);
    breaker.backoffMaxMs = breakerSetting(root, "breakerTimeMax", 320000);
    return breaker;
}
