// Whether the daemon has its UDP port.
#include "VeyraServer/EffectiveSettings.h"
#include "checks/Checks.h"
#include "host/Text.h"

namespace {

// Whether the socket receives the datagrams that are sent to the port on 127.0.0.1. If the
// socket belongs to another process, the daemon does not get these datagrams.
bool isAtPort(const Socket& socket, int port) {
    return !socket.isTcp && socket.localPort == port && coversLoopback(socket.localAddress);
}

Finding judgeOwner(const Gateway& gateway, const std::string& subject, const Socket& taken) {
    constexpr long searchMs = 2000;
    const int owner = ownerOf(taken.inode, gateway.limitMs(searchMs));
    if (owner == 0) {
        return unknown("port.owner-hidden", subject,
                       "Another process uses the port. The doctor cannot identify that process.",
                       gateway.rightsHint());
    }
    return bad("port.in-use", subject, "The port is in use by " + describeProcess(owner) + ".",
               "Stop that program, or change udp.veyraPort in the configuration and the port in "
               "the network server.");
}

Finding judgeOtherPort(const Gateway& gateway, const std::string& subject, int port) {
    const std::string cause = "The daemon listens on port " + std::to_string(port) + ".";
    if (gateway.configurationFile != gateway.daemon->commandLine.configurationFile) {
        return unknown("port.not-compared", subject,
                       cause + " The daemon uses another configuration file: " +
                           gateway.daemon->commandLine.configurationFile + ".",
                       "Run the doctor without -c.");
    }
    return bad("port.other", subject,
               cause + " The configuration was changed after the daemon started.",
               "Restart:" + command(serviceCommand("restart")));
}

// The daemon is running and the doctor sees its sockets, but the daemon does not have the port.
Finding judgeMissing(const Gateway& gateway, const std::string& subject, const Look& look) {
    if (isStarting(look)) {
        return unknown(
            "port.starting", subject,
            "The daemon has not finished starting. The daemon opens the port as its last step.");
    }
    for (const Socket& socket : look.sockets) {
        if (socket.isOwn && !socket.isTcp && socket.remotePort == 0 && socket.localPort != 0) {
            Finding finding = judgeOtherPort(gateway, subject, socket.localPort);
            finding.facts["listensOn"] = socket.localPort;
            return finding;
        }
    }
    return bad("port.missing", subject, "The daemon does not listen on the port.",
               "See the daemon's log.");
}

// The lowest port on which the service user has permission to listen.
int firstFreePort() {
    const std::string text = textOf("/proc/sys/net/ipv4/ip_unprivileged_port_start");
    if (text.empty()) {
        return 1024;
    }
    return std::stoi(text);
}

// The daemon is not running, and no other program has the port.
Finding judgeFree(const Gateway& gateway, const std::string& subject, int port) {
    if (port < firstFreePort() && gateway.user.uid != 0) {
        return bad("port.privileged", subject,
                   "The user " + gateway.user.name +
                       " has no permission to listen on ports below " +
                       std::to_string(firstFreePort()) + ".",
                   thenRestart("Write a number from 1024 to 65535 into udp.veyraPort."));
    }
    return ok(subject + ", free");
}

// The socket at the port, the daemon's own if there are several; null: the port is free.
const Socket* findAtPort(const Look& look, int port) {
    const Socket* found = nullptr;
    for (const Socket& socket : look.sockets) {
        if (isAtPort(socket, port) && (found == nullptr || socket.isOwn)) {
            found = &socket;
        }
    }
    return found;
}

// The datagrams that the kernel dropped at this socket before this run.
std::uint64_t dropsBefore(const Gateway& gateway, const Socket& own) {
    for (const Socket& socket : gateway.firstLook.sockets) {
        if (socket.inode == own.inode) {
            return socket.drops;
        }
    }
    return own.drops;
}

Finding describe(const Gateway& gateway, const std::string& subject, const Socket& own) {
    Finding finding = ok(subject);
    if (const std::uint64_t before = dropsBefore(gateway, own); own.drops > before) {
        finding = bad("port.dropping", subject,
                      "The kernel dropped " +
                          counted(static_cast<long long>(own.drops - before), "datagram") +
                          " during this run: they arrive faster than the cloud responds.",
                      "See \"Sizing\" in operations.md.");
    } else if (own.drops > 0) {
        finding.subject +=
            ", " + counted(static_cast<long long>(own.drops), "datagram") + " dropped";
        finding.fix =
            "Run the doctor again. If the number has grown, see \"Sizing\" in operations.md.";
    }
    finding.facts["droppedDatagrams"] = Json::UInt64{own.drops};
    finding.facts["waitingBytes"] = Json::UInt64{own.waitingBytes};
    return finding;
}

} // namespace

Findings checkPort(Gateway& gateway) {
    const int port = effectivePort(gateway.configuration);
    const std::string subject = "127.0.0.1:" + std::to_string(port) + " (UDP)";
    if (port == 0) {
        return {ok("any free port")};
    }
    const Look look = gateway.look();
    const Socket* const taken = findAtPort(look, port);
    if (taken != nullptr && taken->isOwn) {
        return {describe(gateway, subject, *taken)};
    }
    if (gateway.daemon != nullptr && !look.socketsAreSeen) {
        return {unknown("port.hidden", subject,
                        "The doctor does not run as root, so it cannot see the daemon's sockets.",
                        runAsRoot)};
    }
    if (taken != nullptr) {
        return {judgeOwner(gateway, subject, *taken)};
    }
    if (gateway.daemon != nullptr) {
        return {judgeMissing(gateway, subject, look)};
    }
    return {judgeFree(gateway, subject, port)};
}
