// Whether datagrams of the network server arrive.
#include "VeyraServer/EffectiveSettings.h"
#include "checks/Checks.h"
#include "host/Text.h"

#include <algorithm>

namespace {

// Whether a process receives datagrams for this port at this IPv4 address. An empty address means
// IPv6.
bool isBound(const Look& look, const std::string& address, int port) {
    return std::any_of(look.sockets.begin(), look.sockets.end(), [&](const Socket& socket) {
        const std::string bound = addressText(socket.localAddress);
        const bool isIpv6 = bound.find(':') != std::string::npos;
        const bool matches = address.empty() ? isIpv6 : bound == address || bound == "0.0.0.0";
        return !socket.isTcp && socket.localPort == port && (matches || bound == "::");
    });
}

// Datagrams that arrive where no process receives them; empty when there are none.
Findings judgeElsewhere(const Gateway& gateway, const DatagramCounts& counts, int port,
                        const std::string& subject) {
    const Look look = lookAt(0);
    std::string fix = "Correct the settings of the network server: the network server must send to "
                      "127.0.0.1, port " +
                      std::to_string(port) + ".";
    if (gateway.hasProblem("settings")) {
        fix = "Fix the problems of the check \"settings\" first. A wrong setting can change the "
              "daemon's port.";
    }
    if (counts.atPortByIpv6 > 0 && !isBound(look, "", port)) {
        return {bad("traffic.ipv6", subject,
                    "Datagrams arrive over IPv6, but the daemon listens on 127.0.0.1 only.", fix)};
    }
    for (const auto& [address, count] : counts.atOtherAddresses) {
        if (!isBound(look, address, port)) {
            return {bad("traffic.other-address", subject,
                        "Datagrams that look like those for the daemon arrived at " + address +
                            " (" + std::to_string(count) +
                            " in this run), but the daemon listens on 127.0.0.1 only.",
                        fix)};
        }
    }
    for (const auto& [other, count] : counts.atOtherPorts) {
        if (!isBound(look, "127.0.0.1", other)) {
            return {bad("traffic.other-port", subject,
                        "Datagrams that look like those for the daemon arrived at port " +
                            std::to_string(other) + " (" + std::to_string(count) +
                            " in this run), where no process listens.",
                        fix)};
        }
    }
    return {};
}

} // namespace

Findings checkTraffic(Gateway& gateway) {
    const int port = effectivePort(gateway.configuration);
    const DatagramCounts& counts = gateway.datagrams.count(port);
    const std::string subject = "127.0.0.1:" + std::to_string(port) + " (UDP)";
    if (!counts.areSeen) {
        return {unknown("traffic.hidden", subject, "Only root can watch datagrams.", runAsRoot)};
    }
    Json::Value facts;
    facts["datagrams"] = counts.atPort;
    if (counts.atPort > 0) {
        return {ok(counted(counts.atPort, "datagram") + " during this run", facts)};
    }
    if (Findings found = judgeElsewhere(gateway, counts, port, subject); !found.empty()) {
        return found;
    }
    Finding finding = ok("no datagram during this run", facts);
    finding.fix = "Send a test datagram, with bash:" +
                  command("echo '{\"path\":\"test\",\"request\":{}}' >/dev/udp/127.0.0.1/" +
                          std::to_string(port)) +
                  "\nIf the cloud rejects this datagram, the check \"errors\" reports the request.";
    return {finding};
}
