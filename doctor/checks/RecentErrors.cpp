// The check "errors": faults in the log since the last start.
#include "checks/RecentErrors.h"

#include "checks/Checks.h"
#include "host/Text.h"

#include <cstring>

namespace {

using Kind = LogHistory::Kind;
using Event = LogHistory::Event;

constexpr std::time_t recentSeconds = 600;

std::string summary(const Event& event, const std::string& noun) {
    return counted(event.count, noun) + ", the last at " + utcText(event.last) + ": " +
           quoted(event.text);
}

long statusIn(const std::string& record) {
    const auto place = record.find("CODE:");
    if (place == std::string::npos) {
        return 0;
    }
    return std::strtol(record.c_str() + place + 5, nullptr, 10);
}

std::string fixForStatus(long status) {
    if (status == 401 || status == 403) {
        return "See the checks \"clock\" and \"identity\". Check with the operator of the cloud "
               "that both sides have the same fingerprint.";
    }
    if (status == 404 || status == 405) {
        return "Compare network.veyraServer with the API prefix of the cloud. Check the path that "
               "the network server sends.";
    }
    if (status == 429) {
        return "The cloud limits the number of requests. Send fewer datagrams, or ask the operator "
               "of the cloud.";
    }
    if (status / 100 == 4) {
        return "The cloud rejects the data that the network server sends. Ask the vendor of the "
               "network server.";
    }
    return "The daemon accepts only the statuses 200 and 201. Ask the operator of the cloud why "
           "the cloud sends another status.";
}

Finding judgeRequest(const RecentFacts& facts, const Event& event, bool isRefused) {
    const std::string cause = summary(event, "failed request") + ".";
    if (!facts.cloudIsOk) {
        return bad("errors.request-failed", facts.path, cause,
                   "Fix the problem of the check \"cloud\" first.");
    }
    std::string succeeds;
    if (facts.cloudStatus != 0) {
        succeeds = " The cloud answers an unsigned HEAD request now, with status " +
                   std::to_string(facts.cloudStatus) + ".";
    }
    if (isRefused) {
        return bad("errors.request-refused", facts.path, cause + succeeds,
                   fixForStatus(statusIn(event.text)));
    }
    return bad("errors.request-failed", facts.path, cause + succeeds,
               "The fault may be over. Watch the log. If requests still fail, check the network.");
}

// `record` ends in the return code of CONNACK, such as "server(5)".
std::string fixForRejection(const RecentFacts& facts, const std::string& record) {
    const bool isProtocol = record.find("(1)") != std::string::npos;
    const bool isUnavailable = record.find("(3)") != std::string::npos;
    if (isProtocol || isUnavailable) {
        return "See the broker's log.";
    }
    if (facts.brokerIsOk) {
        return "Allow the client id VEYRA_SERVER in the broker's settings.";
    }
    return thenRestart("Correct mqtt.username and mqtt.password, or the broker's users.");
}

Finding judgeEvent(const RecentFacts& facts, const LogHistory& history, Kind kind,
                   const Event& event) {
    const std::string& path = facts.path;
    switch (kind) {
    case Kind::LOCKED:
        return bad("errors.locked", path,
                   summary(event, "aborted request") +
                       ". After this error the daemon no longer relays.",
                   "Restart:" + command(serviceCommand("restart")) +
                       "\nSee \"The daemon no longer relays\" in operations.md.");
    case Kind::EXCEPTION:
    case Kind::INVALID_DATAGRAM:
        return bad("errors.invalid-datagram", path, summary(event, "invalid datagram") + ".",
                   "Correct the program that sends these datagrams; see protocol.md.");
    case Kind::TRANSFER_FAILED:
        return judgeRequest(facts, event, false);
    case Kind::STATUS_REFUSED:
        return judgeRequest(facts, event, true);
    case Kind::DROPPED:
        return bad("errors.dropped", path,
                   summary(event, "dropped datagram") + ". The circuit breaker was open until " +
                       utcText(history.openUntil) + ".",
                   "Find and fix the cause of the failed requests. They open the circuit breaker.");
    case Kind::LINK_REBUILT:
        return bad("errors.link-rebuilt", path,
                   "The connection to the broker was recreated " + counted(event.count, "time") +
                       ", the last time at " + utcText(event.last) + ".",
                   "See the broker's log at that time.");
    case Kind::BROKER_REFUSED:
        return bad("errors.broker-rejected", path,
                   "The broker rejected the daemon " + summary(event, "time") + ".",
                   fixForRejection(facts, event.text));
    case Kind::PORT_IN_USE:
        return bad("errors.port-in-use", path,
                   "The daemon could not open its port: " + summary(event, "failed attempt") + ".",
                   "See the check \"port\".");
    default:
        return bad("errors.other", path, summary(event, "error") + ".",
                   "See \"Log records\" in operations.md.");
    }
}

bool isRecent(std::time_t time, std::time_t now) {
    return now >= time && now - time < recentSeconds;
}

// A later success shows that requests work again, if the log has successes at all.
bool isOver(const RecentFacts& facts, const LogHistory& history, Kind kind, const Event& event) {
    const bool isRequest =
        kind == Kind::TRANSFER_FAILED || kind == Kind::STATUS_REFUSED || kind == Kind::DROPPED;
    const bool replied = facts.replyWasSeen && kind != Kind::STATUS_REFUSED;
    return isRequest && (replied || history.lastSuccessAt > event.last);
}

std::string describe(const LogHistory& history, int total) {
    std::string since = " since the last start";
    if (history.startedAt == 0 && history.firstAt == 0) {
        return "the log has no records";
    }
    if (history.startedAt == 0) {
        since = " since " + utcText(history.firstAt) + ", where the log begins";
    }
    if (total == 0) {
        return "no fault" + since;
    }
    return "no current fault; earlier faults" + since + ": " + std::to_string(total);
}

Findings judgeEnd(const RecentFacts& facts, const LogHistory& history) {
    // A power cut or a reboot leaves no stop record either.
    const bool isUnasked =
        history.endedUnaskedAt > facts.bootedAt && isRecent(history.endedUnaskedAt, facts.now);
    if (!isUnasked) {
        return {};
    }
    const std::string cause =
        "The previous run ended at about " + utcText(history.endedUnaskedAt) +
        " without the record \"Shutdown signal received\". It was killed, it aborted, or it ended "
        "because of a fault at startup.";
    const std::string fix = seeWhy();
    if (facts.kernelRecord.empty()) {
        return {unknown("errors.ended-without-stop", facts.path, cause, fix)};
    }
    return {bad("errors.killed", facts.path,
                cause + " The kernel logged this about a process with the daemon's name: " +
                    facts.kernelRecord + ".",
                fix)};
}

} // namespace

Findings judgeRecentErrors(const RecentFacts& facts, const LogHistory& history) {
    Findings found = judgeEnd(facts, history);
    int total = 0;
    for (const auto& [kind, event] : history.events) {
        total += event.count;
        if (kind == Kind::DROPPED && history.openUntil > facts.now) {
            found.push_back(bad("errors.circuit-open", facts.path,
                                summary(event, "dropped datagram") +
                                    ". The circuit breaker is open until " +
                                    utcText(history.openUntil) + ".",
                                "Find and fix the cause of the failed requests. Then restart the "
                                "daemon, so that it sends requests again at once."));
        } else if (isRecent(event.last, facts.now) && !isOver(facts, history, kind, event)) {
            found.push_back(judgeEvent(facts, history, kind, event));
        }
    }
    if (found.empty()) {
        found.push_back(ok(describe(history, total)));
    }
    found.front().facts["faultsSinceStart"] = total;
    return found;
}

Findings checkRecentErrors(Gateway& gateway) {
    if (gateway.configuration["log"]["syslog"].asBool()) {
        if (gateway.hasProblem("log")) {
            return {unknown("errors.in-syslog", "syslog",
                            "The records are lost, because no syslog daemon accepts them.",
                            "See the check \"log\".")};
        }
        return {unknown("errors.in-syslog", "syslog", "The records are in syslog.",
                        "See the records:" + command("journalctl -t lora-veyra-server"))};
    }
    if (gateway.logError != 0) {
        return {
            unknown("errors.no-log", gateway.logFile,
                    std::string("The log cannot be read: ") + std::strerror(gateway.logError) + ".",
                    gateway.rightsHint())};
    }
    LogHistory history = gateway.history;
    if (gateway.disturbedLink) {
        history.events.erase(Kind::LINK_REBUILT); // the doctor itself may have caused it
    }
    RecentFacts facts;
    facts.path = gateway.logFile;
    facts.now = std::time(nullptr);
    facts.bootedAt = bootTime();
    facts.cloudStatus = gateway.cloud.status;
    facts.cloudIsOk = !gateway.hasProblem("cloud");
    facts.brokerIsOk = !gateway.hasProblem("broker");
    facts.replyWasSeen = gateway.replyWasSeen;
    facts.kernelRecord = kernelRecordOfDaemon();
    return judgeRecentErrors(facts, history);
}
