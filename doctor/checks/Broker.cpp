// Whether the broker accepts the daemon's credentials, at the address that the daemon uses.
#include "checks/Checks.h"
#include "mqtt/Mosquitto.h"

#include <cerrno>
#include <cstring>
#include <mqtt_protocol.h>
#include <netdb.h>

namespace {

constexpr long addressesMs = 6000;
constexpr long connackMs = 3000;
constexpr int brokerUnavailable = 3; // a return code of CONNACK
constexpr const char* fixAddress = "Start the broker, or correct mqtt.host and mqtt.port.";

// The daemon waits about two minutes for each address that does not answer.
Finding judgeAddresses(const std::string& subject, const BrokerAddress& broker,
                       const AddressTrial& trial) {
    if (trial.resolverError == EAI_NONAME) {
        return bad("broker.unresolved", subject, "The name " + broker.host + " does not exist.",
                   thenRestart("Write an address such as 127.0.0.1 into mqtt.host."));
    }
    if (trial.tried.empty()) {
        return unknown("broker.dns-failed", subject,
                       "No name server resolved the name " + broker.host + " within 4 s.",
                       thenRestart("Check /etc/resolv.conf, or write an address such as 127.0.0.1 "
                                   "into mqtt.host."));
    }
    const HostAddress& last = trial.tried.back();
    const std::string reason = last.text + ": " + std::strerror(last.error) + ".";
    if (last.error == ETIMEDOUT) {
        return bad("broker.silent", subject, "The broker's host does not answer at " + reason,
                   "Check the host and its firewall, or correct mqtt.host.");
    }
    if (last.error != ECONNREFUSED) {
        return bad("broker.no-route", subject, "The gateway cannot reach " + reason,
                   "Check the network and the firewall:" + command("ip route") +
                       "\nIf the network and the firewall are correct, change mqtt.host.");
    }
    return bad("broker.refused", subject, "No broker listens at " + reason, fixAddress);
}

// Reports an address that does not respond and that the daemon tries before the working one. Empty
// if there is none.
Findings judgeSilentAddress(const std::string& subject, const std::vector<HostAddress>& tried) {
    for (const HostAddress& address : tried) {
        if (address.error == ETIMEDOUT) {
            return {bad("broker.address-silent", subject,
                        "The address " + address.text +
                            " does not answer. At each start, the daemon tries this address first "
                            "and waits about two minutes. " +
                            tried.back().text + " answers.",
                        thenRestart("Write " + tried.back().text + " into mqtt.host."))};
        }
    }
    return {};
}

// The codes are those of MQTT 3.1.1. Brokers also send code 5 to a client id that they do not
// allow.
Finding judgeConnack(const std::string& subject, int code, bool isAnonymous) {
    constexpr int wrongProtocol = 1;
    constexpr int wrongClientId = 2;
    const std::string number = " (code " + std::to_string(code) + ").";
    if (code == wrongProtocol) {
        return bad(
            "broker.protocol", subject, "The broker does not accept MQTT 3.1.1" + number,
            "Enable MQTT 3.1.1 in the broker's settings, or install a broker that supports it.");
    }
    if (code == wrongClientId) {
        return unknown("broker.rejected", subject,
                       "The broker rejects the client id of the doctor" + number);
    }
    if (code == brokerUnavailable) {
        return bad("broker.unavailable", subject,
                   "The broker reports that it is unavailable" + number, "See the broker's log.");
    }
    if (isAnonymous) {
        return bad(
            "broker.anonymous", subject,
            "The broker does not accept the doctor without a username" + number +
                " Either the broker requires a username, or the broker allows only certain client "
                "ids.",
            thenRestart("Set mqtt.username and mqtt.password. If they are not necessary, see "
                        "clientid_prefixes in the broker's settings."));
    }
    return bad("broker.credentials", subject,
               "The broker does not accept the doctor with this username and password" + number +
                   " Either they are wrong, or the broker allows only certain client ids.",
               thenRestart("Check mqtt.username, mqtt.password and the broker's users. If all of "
                           "them are correct, see clientid_prefixes in the broker's settings."));
}

// The address accepts connections, but no answer to CONNECT arrived.
Finding judgeSilence(const Gateway& gateway, const std::string& subject, int port, bool isEnded) {
    constexpr long handshakeMs = 2000;
    const ActingAs service(gateway.user); // a firewall rule may depend on the user
    if (speaksTls(gateway.brokerHost, port, gateway.limitMs(handshakeMs))) {
        return bad("broker.tls", subject,
                   "The broker expects TLS at this port. The daemon does not support TLS.",
                   thenRestart("Give the broker a listener without TLS on 127.0.0.1, and write its "
                               "port into mqtt.port."));
    }
    if (isEnded) {
        return bad("broker.closed", subject,
                   "The connection was closed before CONNACK. Either the broker has reached its "
                   "connection limit, or another program listens at this port.",
                   "See the broker's log. Compare max_connections with the number of clients, or "
                   "correct mqtt.port.");
    }
    return bad(
        "broker.no-connack", subject,
        "The program at this port accepts the connection, but does not answer CONNECT in time.",
        "See the broker's log. Either the broker hangs, or another program listens at this port.");
}

// Whether the doctor and the daemon have the same client id: each new connection then ends the
// other one. If the daemon reconnects for another reason, the doctor's connection stays open.
bool disturbsDaemon(Gateway& gateway, MqttProbe& probe, std::uint64_t linkBefore) {
    constexpr long reconnectMs = 2500;
    const bool isReplaced = linkBefore != 0 && gateway.linkInode(gateway.look()) != linkBefore;
    return isReplaced && !probe.waitUntil([] { return false; }, gateway.limitMs(reconnectMs));
}

Finding judgeAnswer(Gateway& gateway, const std::string& subject, const BrokerAddress& broker) {
    constexpr long settleMs = 300;
    const std::uint64_t linkBefore = gateway.linkInode(gateway.look());
    const auto credentials = brokerCredentials(gateway.configuration["mqtt"]);
    auto probe = std::make_unique<MqttProbe>(MQTT_PROTOCOL_V311);
    {
        const ActingAs service(gateway.user); // a firewall rule may depend on the user
        probe->connect(gateway.brokerHost, broker.port, credentials, gateway.limitMs(connackMs));
    }
    const bool isOpen = probe->waitUntil([] { return false; }, gateway.limitMs(settleMs));
    if (!probe->connack) {
        return judgeSilence(gateway, subject, broker.port, !isOpen);
    }
    if (*probe->connack != 0) {
        return judgeConnack(subject, *probe->connack, !credentials);
    }
    if (isOpen && disturbsDaemon(gateway, *probe, linkBefore)) {
        gateway.disturbedLink = true;
        gateway.wasLinked = true;
        return unknown(
            "broker.same-client-id", subject,
            "The broker uses the username as the client id (use_username_as_clientid). It ended "
            "the daemon's connection when the doctor connected. The daemon reconnects by itself.",
            "Use lora-veyra-doctor --alive with this broker.");
    }
    probe->subscribe(keepaliveTopic, 2);
    probe->subscribe("lora/veyra", 0); // QoS 0, because one of many replies is enough
    gateway.broker = std::move(probe);
    return ok(subject);
}

AddressTrial tryAsService(const Gateway& gateway, const BrokerAddress& broker) {
    const ActingAs service(gateway.user); // a firewall rule may depend on the user
    return tryAddresses(broker, gateway.limitMs(addressesMs));
}

// Whether the daemon's connection has lasted since the start of this run, and the log has no record
// that the connection was recreated. The log is needed, because the kernel also shows a connection
// on which the broker never answered.
bool isLinkStable(Gateway& gateway) {
    const std::uint64_t inode = gateway.linkInode(gateway.look());
    const bool wasRebuilt = gateway.history.events.count(LogHistory::Kind::LINK_REBUILT) != 0;
    return inode != 0 && inode == gateway.linkInode(gateway.firstLook) && !wasRebuilt;
}

// While the daemon is connected, the doctor's own failure proves nothing about the daemon.
Finding asObserved(Finding finding, bool isLinked) {
    if (isLinked && finding.outcome == Outcome::BAD) {
        finding.outcome = Outcome::UNKNOWN;
        finding.cause += " However, the daemon's own connection to the broker has stayed open "
                         "during this run.";
        finding.fix = "Run the doctor again after one minute. If the result is the same, see the "
                      "broker's log: the broker probably treats the two client ids differently.";
    }
    return finding;
}

} // namespace

Findings checkBroker(Gateway& gateway) {
    gateway.readHistory();
    const BrokerAddress broker = brokerAddress(gateway.configuration["mqtt"]);
    const auto credentials = brokerCredentials(gateway.configuration["mqtt"]);
    std::string subject = broker.host + ":" + std::to_string(broker.port);
    if (credentials) {
        subject += " as " + credentials->username;
    }
    if (broker.port < 1 || broker.port > 65535) {
        return {bad("broker.refused", subject, "mqtt.port is not a port number.",
                    thenRestart("Write a number from 1 to 65535 into mqtt.port."))};
    }
    const AddressTrial trial = tryAsService(gateway, broker);
    const bool isLinked = isLinkStable(gateway);
    gateway.brokerIsUnresolved = trial.tried.empty();
    if (trial.tried.empty() || trial.tried.back().error != 0) {
        const Finding finding = judgeAddresses(subject, broker, trial);
        return {asObserved(finding, isLinked)};
    }
    gateway.brokerHost = trial.tried.back().text;
    const Finding finding = judgeAnswer(gateway, subject, broker);
    if (finding.outcome == Outcome::OK) {
        Findings silent = judgeSilentAddress(subject, trial.tried);
        if (!silent.empty()) {
            return silent;
        }
        return {finding};
    }
    return {asObserved(finding, isLinked)};
}
