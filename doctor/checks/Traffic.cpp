// Whether datagrams of the network server arrive.
#include "VeyraServer/EffectiveSettings.h"
#include "checks/Checks.h"
#include "host/Text.h"

#include <algorithm>

namespace {

bool isBound(const Look& look, int port) {
    return std::any_of(look.sockets.begin(), look.sockets.end(), [&](const Socket& socket) {
        return !socket.isTcp && socket.localPort == port && coversLoopback(socket.localAddress);
    });
}

} // namespace

Findings checkTraffic(Gateway& gateway) {
    const int port = effectivePort(gateway.configuration);
    const DatagramCounts& counts = gateway.datagrams.count(port);
    const std::string subject = "127.0.0.1:" + std::to_string(port) + " (UDP)";
    const std::string correct =
        "Correct the network server's setting: it must send to 127.0.0.1, port " +
        std::to_string(port) + ".";
    if (!counts.areSeen) {
        return {unknown("traffic.hidden", subject, "Only root can watch datagrams.", runAsRoot)};
    }
    Json::Value facts;
    facts["datagrams"] = counts.atPort;
    if (counts.atPort > 0) {
        return {ok(counted(counts.atPort, "datagram") + " during this run", facts)};
    }
    if (counts.atPortByIpv6 > 0) {
        return {bad("traffic.ipv6", subject,
                    "Datagrams arrive at [::1], but the daemon listens on 127.0.0.1 only.",
                    correct)};
    }
    const Look look = lookAt(0);
    for (const auto& [other, count] : counts.elsewhere) {
        if (!isBound(look, other)) {
            return {bad("traffic.other-port", subject,
                        counted(count, "datagram") + " with a \"path\" arrived at port " +
                            std::to_string(other) + ", where no process listens.",
                        correct)};
        }
    }
    Finding finding = ok("no datagram during this run", facts);
    finding.fix = "bash -c 'echo \"{\\\"path\\\":\\\"test\\\",\\\"request\\\":{}}\" "
                  ">/dev/udp/127.0.0.1/" +
                  std::to_string(port) + "'";
    return {finding};
}
