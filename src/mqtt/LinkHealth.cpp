#include "mqtt/LinkHealth.h"

bool keepaliveIsDue(std::uint64_t nowMs, std::uint64_t lastSentMs) {
    constexpr std::uint64_t keepaliveIntervalMs = 5000;
    return nowMs - lastSentMs > keepaliveIntervalMs;
}

bool linkIsHealthy(bool clientConnected, std::uint64_t nowMs, std::uint64_t lastHeardMs) {
    constexpr std::uint64_t silenceLimitMs = 30000;
    return clientConnected && (nowMs <= lastHeardMs || nowMs - lastHeardMs <= silenceLimitMs);
}
