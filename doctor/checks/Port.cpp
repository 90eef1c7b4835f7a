// Whether the daemon has its UDP port.
#include "VeyraServer/EffectiveSettings.h"
#include "checks/Checks.h"
#include "host/Text.h"

#include <algorithm>

namespace {

// Whether the socket receives, or takes away, what is sent to the port on 127.0.0.1.
bool isAtPort(const Socket& socket, int port) {
    return !socket.isTcp && socket.localPort == port && coversLoopback(socket.localAddress);
}

Finding judgeOwner(const Gateway& gateway, const std::string& subject, const Socket& taken) {
    const int owner = ownerOf(taken.inode);
    if (owner == 0) {
        return unknown("port.owner-hidden", subject, "The owner of the port cannot be seen.",
                       gateway.rightsHint());
    }
    return bad(
        "port.in-use", subject, "The port is in use by " + describeProcess(owner) + ".",
        "Stop that program, or change udp.veyraPort here and the port in the network server.");
}

// The daemon runs and its sockets can be seen, but it does not have the port.
Finding judgeMissing(const Gateway& gateway, const std::string& subject, const Look& look) {
    if (isStarting(look)) {
        return unknown("port.starting", subject,
                       "The daemon opens the port after it has connected to the broker.");
    }
    for (const Socket& socket : look.sockets) {
        if (socket.isOwn && !socket.isTcp && socket.remotePort == 0 && socket.localPort != 0) {
            Finding finding = bad("port.other", subject,
                                  "The daemon listens on port " + std::to_string(socket.localPort) +
                                      ": the configuration was changed since its start.",
                                  "Restart: " + serviceCommand("restart"));
            finding.facts["listensOn"] = socket.localPort;
            return finding;
        }
    }
    return bad("port.missing", subject, "The daemon does not listen on the port.",
               "See its log: tail " + gateway.logFile);
}

// Below this port the service user may not listen.
int firstFreePort() {
    const std::string text = textOf("/proc/sys/net/ipv4/ip_unprivileged_port_start");
    if (text.empty()) {
        return 1024;
    }
    return std::stoi(text);
}

// The daemon does not run, and no other program has the port.
Finding judgeFree(const Gateway& gateway, const std::string& subject, int port) {
    if (port < firstFreePort() && gateway.user.uid != 0) {
        return bad("port.privileged", subject,
                   "The user " + gateway.user.name + " may not listen on ports below " +
                       std::to_string(firstFreePort()) + ".",
                   thenRestart("Write a number from 1024 to 65535 into udp.veyraPort."));
    }
    return ok(subject + ", free");
}

} // namespace

Findings checkPort(Gateway& gateway) {
    const int port = effectivePort(gateway.configuration);
    const std::string subject = "127.0.0.1:" + std::to_string(port) + " (UDP)";
    const Look look = gateway.look();
    if (port == 0) {
        return {ok("any free port")};
    }
    const Socket* taken = nullptr;
    for (const Socket& socket : look.sockets) {
        if (isAtPort(socket, port) && (taken == nullptr || socket.isOwn)) {
            taken = &socket;
        }
    }
    if (taken != nullptr && taken->isOwn) {
        Finding finding = ok(subject);
        if (taken->drops > 0) {
            finding.subject +=
                ", " + counted(static_cast<long long>(taken->drops), "datagram") + " dropped";
        }
        finding.facts["droppedDatagrams"] = Json::UInt64{taken->drops};
        finding.facts["waitingBytes"] = Json::UInt64{taken->waitingBytes};
        return {finding};
    }
    if (gateway.daemon != nullptr && !look.socketsAreSeen) {
        return {unknown("port.hidden", subject, "The daemon's sockets cannot be seen.", runAsRoot)};
    }
    if (taken != nullptr) {
        return {judgeOwner(gateway, subject, *taken)};
    }
    if (gateway.daemon != nullptr) {
        return {judgeMissing(gateway, subject, look)};
    }
    return {judgeFree(gateway, subject, port)};
}
