// Whether the daemon's keepalive comes back from the broker, over a connection that lasts. Also
// notices replies.
#include "checks/Checks.h"
#include "common/Clock.h"
#include "mqtt/Mosquitto.h"

#include <algorithm>

namespace {

constexpr long listenMs = 6500; // the daemon publishes every 5 s
constexpr std::uint64_t pauseMs = 100;
constexpr const char* allow =
    "Allow the daemon's MQTT user to publish to this topic and to read it. Add to "
    "the broker's ACL: topic readwrite lora/veyra_keepalive";

// If the connection is recreated once, which is normal after the start of the daemon, the run sees
// three states: the old one, none, the new one.
bool isUnstable(const Gateway& gateway) {
    constexpr std::size_t mostStates = 3;
    return gateway.links.size() > mostStates;
}

Finding judgeUnstable() {
    return bad(
        "echo.link-unstable", keepaliveTopic,
        "The daemon's connection to the broker was replaced several times during this run. Either "
        "a second client uses the client id VEYRA_SERVER, or the broker restarts repeatedly.",
        "Search the broker's log for VEYRA_SERVER. If it says \"already connected\", stop the "
        "second client.");
}

// No keepalive arrived. `isOpen`: the doctor's own connection lasted.
Finding judgeAbsence(Gateway& gateway, const MqttProbe& probe, bool isOpen) {
    if (probe.isDenied) {
        return bad("echo.denied", keepaliveTopic, "The broker denies the subscription.", allow);
    }
    if (!gateway.wasLinked) {
        return unknown("echo.not-linked", keepaliveTopic,
                       "The daemon is not connected to this broker.");
    }
    if (!isOpen) {
        return unknown("echo.ended", keepaliveTopic,
                       "The broker ended the doctor's connection before a keepalive arrived.");
    }
    if (!probe.isSubscribed) {
        return unknown("echo.no-answer", keepaliveTopic,
                       "The broker did not answer the doctor's subscription.",
                       "See the broker's log. The broker may be hanging.");
    }
    const char state = gateway.look().status.state;
    if (state == 0 || state == 'Z') {
        return unknown("echo.no-daemon", keepaliveTopic, "The daemon ended during this run.",
                       "Run the doctor again.");
    }
    return bad(
        "echo.silent", keepaliveTopic,
        "No keepalive arrived within 6 s, although the daemon was connected to the broker during "
        "this run. There are two usual causes. Either the broker does not allow the daemon's MQTT "
        "user to publish to this topic or to read it, or a second client uses the client id "
        "VEYRA_SERVER. Without a keepalive, the daemon reconnects repeatedly.",
        std::string(allow) +
            "\nIf the ACL is correct, search the broker's log for VEYRA_SERVER. If it says "
            "\"already connected\", stop the second client.");
}

} // namespace

Findings checkEcho(Gateway& gateway) {
    MqttProbe& probe = *gateway.broker;
    std::uint64_t nextLookMs = 0;
    const auto isDone = [&] {
        const std::uint64_t nowMs = monotonicMillis();
        if (nowMs >= nextLookMs) { // messages are handled between two looks
            gateway.look();
            nextLookMs = monotonicMillis() + std::max(pauseMs, 3 * (monotonicMillis() - nowMs));
        }
        const bool isSteady = gateway.links.size() == 1;
        return (probe.keepaliveWasSeen && isSteady) || probe.isDenied;
    };
    const bool isOpen = probe.waitUntil(isDone, gateway.limitMs(listenMs));
    gateway.replyWasSeen = probe.replyWasSeen;
    if (probe.keepaliveWasSeen) {
        if (isUnstable(gateway)) {
            return {judgeUnstable()};
        }
        return {ok(keepaliveTopic)};
    }
    return {judgeAbsence(gateway, probe, isOpen)};
}
