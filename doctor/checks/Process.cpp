// Whether the daemon runs and works: the check "alive".
#include "checks/Process.h"

#include "VeyraServer/EffectiveSettings.h"
#include "checks/Absence.h"
#include "checks/Checks.h"
#include "common/Clock.h"

namespace {

Finding judgeTracing(const std::string& subject, const Look& look) {
    if (look.status.tracerPid == 0) { // the debugger is in another container, or has just ended
        return bad("alive.traced", subject, "A debugger has paused the daemon.",
                   "End the debugger.");
    }
    // A process can make its parent the tracer without the parent's consent. The parent may be a
    // supervisor or init, so the fix must not end the tracer.
    if (look.status.tracerPid == look.status.parentPid || look.status.tracerPid == 1) {
        return bad("alive.traced", subject,
                   "The daemon's parent process traces the daemon and has paused it.",
                   "End the daemon:" + command("kill -KILL " + std::to_string(look.pid)));
    }
    return bad("alive.traced", subject,
               "A debugger has paused the daemon: " + describeProcess(look.status.tracerPid) + ".",
               "End the debugger:" + command("kill " + std::to_string(look.status.tracerPid)));
}

Finding judgeBlocked(const std::string& subject, const Look& look) {
    return bad("alive.output-blocked", subject,
               "The daemon waits until another program reads its output. The program that reads "
               "the pipe, or the syslog daemon, hangs or is not running (kernel function: " +
                   look.blockedIn + ").",
               "Find that program, and start or restart it. To see where the daemon's output "
               "goes:" +
                   command("ls -l /proc/" + std::to_string(look.pid) + "/fd"));
}

// The start waits for the first connection to the broker: about two minutes for each address that
// does not answer.
Finding judgeStart(const std::string& subject, const Look& look) {
    if (!look.blockedIn.empty()) {
        return judgeBlocked(subject, look);
    }
    const std::string fix = thenRestart("Start that broker, or correct mqtt.host.");
    for (const Socket& socket : look.sockets) {
        if (socket.isOwn && socket.isTcp && socket.state == tcpSynSent) {
            return bad("alive.starting", subject,
                       "The daemon has not finished starting: the broker at " +
                           addressText(socket.remoteAddress) + " does not answer.",
                       fix);
        }
    }
    return bad("alive.starting", subject,
               "The daemon has not finished starting: it is resolving the broker's name or "
               "connecting to the broker.",
               fix);
}

Finding judgeDeadlock(const std::string& subject, int pid) {
    return bad("alive.deadlocked", subject, "The daemon is deadlocked and no longer relays.",
               command("kill -KILL " + std::to_string(pid)) + command(serviceCommand("start")) +
                   "\nSee \"The daemon no longer relays\" in operations.md.");
}

// The main thread has not run: it waits for a lock, or for an operation of the kernel.
Finding judgeStandstill(const std::string& subject, const LifeFacts& facts) {
    const Look& look = facts.now;
    if (look.status.state == 'D') {
        return bad("alive.in-kernel", subject,
                   "The daemon waits in the kernel, for example for a disk that does not answer.",
                   "See the kernel's messages:" + command("dmesg | tail"));
    }
    const bool isHidden = look.waitsIn.size() < 2; // the kernel may show "0"
    const bool isInLock = look.waitsIn.find("futex") != std::string::npos;
    if (isInLock || (isHidden && facts.hasLockRecord)) {
        return judgeDeadlock(subject, look.pid);
    }
    return unknown("alive.no-progress", subject,
                   "The main thread of the daemon has not run during this examination.", seeWhy());
}

// The main thread runs about once a second, because libcurl waits for a response.
Finding judgeSlowness(const std::string& subject, const LifeFacts& facts) {
    const std::string kill = command("kill -KILL " + std::to_string(facts.now.pid));
    if (!facts.datagramsAreSeen) {
        return unknown("alive.no-progress", subject,
                       "The main thread runs only about once a second. A request to the cloud may "
                       "be in progress.",
                       runAsRoot);
    }
    if (facts.wasToldToStop) {
        return bad("alive.stopping", subject,
                   "The daemon received a stop signal. It waits until a request to the cloud ends.",
                   "Wait, or kill the daemon:" + kill);
    }
    return bad(
        "alive.waits-for-cloud", subject,
        "A request to the cloud has been in progress for 10 s or more.",
        "See the check \"cloud\". If that check is ok, ask the operator of the cloud why this "
        "request "
        "gets no response. A request has no time limit after its connection is open. To end the "
        "request, kill the daemon:" +
            kill);
}

// The main thread has not worked for a long time.
Finding judgeQuiet(const std::string& subject, const LifeFacts& facts) {
    const Look& look = facts.now;
    if (!look.blockedIn.empty()) {
        return judgeBlocked(subject, look);
    }
    if (look.status.voluntarySwitches == facts.active.status.voluntarySwitches) {
        return judgeStandstill(subject, facts);
    }
    return judgeSlowness(subject, facts);
}

Finding judgeLink(const std::string& subject, const LifeFacts& facts) {
    if (facts.isRejected) {
        return bad(
            "alive.not-linked", subject,
            "The broker accepts the doctor, but rejects the daemon, although both use the same "
            "credentials. The broker probably rejects the client id VEYRA_SERVER.",
            "Allow this client id in the broker's settings (clientid_prefixes, ACL).");
    }
    std::string cause = "The daemon has no connection to the broker.";
    if (facts.brokerIsOk) {
        cause += " The broker accepts the doctor, which uses the same credentials.";
    }
    return bad("alive.not-linked", subject, cause,
               "Wait 20 s and run the doctor again. If the problem remains:" +
                   command(serviceCommand("restart")));
}

// The sum of a number over the daemon's own UDP sockets.
std::uint64_t totalOf(std::uint64_t Socket::*number, const Look& look) {
    std::uint64_t total = 0;
    for (const Socket& socket : look.sockets) {
        if (socket.isOwn && !socket.isTcp) {
            total += socket.*number;
        }
    }
    return total;
}

LifeFacts gatherFacts(const Gateway& gateway, const Look& active, const Look& now) {
    using Kind = LogHistory::Kind;
    const auto& events = gateway.history.events;
    LifeFacts facts{active, now};
    facts.isLinked = gateway.wasLinked || !gateway.isConfigurationCurrent();
    facts.brokerIsOk = gateway.broker != nullptr && !gateway.daemon->isForeign;
    facts.brokerIsBad = gateway.hasProblem("broker") || gateway.brokerIsUnresolved;
    facts.isRejected = facts.brokerIsOk && events.count(Kind::BROKER_REFUSED) != 0;
    facts.datagramsAreSeen = gateway.isRoot;
    facts.wasToldToStop = gateway.history.isStopped;
    facts.hasLockRecord = events.count(Kind::LOCKED) != 0;
    return facts;
}

// A daemon that looks stuck is observed for longer.
bool isFinal(const Finding& finding, std::uint64_t passedMs, std::uint64_t quietMs) {
    constexpr std::uint64_t shortMs = 2000;
    constexpr std::uint64_t activeMs = 500;
    const bool isOver = finding.id == "alive.ended" || finding.id == "alive.suspended";
    const bool isPlain = finding.outcome == Outcome::OK || finding.id == "alive.traced" ||
                         finding.id == "alive.starting";
    const bool isQuiet = finding.outcome == Outcome::OK && quietMs >= activeMs;
    return isOver || passedMs >= standstillMs + shortMs || quietMs >= standstillMs ||
           (passedMs >= shortMs && isPlain && !isQuiet) ||
           (passedMs >= standstillMs && finding.outcome != Outcome::OK);
}

Finding judgeSecondDaemon(const std::vector<Daemon>& daemons, int mainPid) {
    const std::string first = std::to_string(daemons[0].pid);
    const std::string second = std::to_string(daemons[1].pid);
    std::string way = "\nTo see both processes:" +
                      command("ps -o pid,user,lstart,args -p " + first + "," + second);
    if (daemons[0].pid == mainPid) {
        way = command("kill " + second);
    }
    return bad("alive.two-daemons", installedProgram(),
               "More than one daemon is running. Two of them: processes " + first + " and " +
                   second + ".",
               "Stop the daemon that the service did not start." + way);
}

Finding lookAgain(Gateway& gateway) {
    constexpr unsigned pauseMs = 250;
    const int port = effectivePort(gateway.configuration);
    int arrived = gateway.datagrams.count(port).atPort;
    Look active = gateway.firstLook;
    Look before = gateway.firstLook;
    for (;;) {
        // Only datagrams that arrived between the two looks count.
        const bool hasArrived = gateway.datagrams.count(port).atPort > arrived;
        const Look now = gateway.look();
        arrived = gateway.datagrams.count(port).atPort;
        if (wasAtWork(before, now, hasArrived)) {
            active = now;
        }
        before = now;
        Finding finding = judgeLife(gatherFacts(gateway, active, now));
        const std::uint64_t passedMs = now.atMs - gateway.firstLook.atMs;
        if (isFinal(finding, passedMs, now.atMs - active.atMs) || gateway.limitMs(1) == 0) {
            return finding;
        }
        sleepMillis(pauseMs);
    }
}

} // namespace

bool wasAtWork(const Look& before, const Look& after, bool datagramArrived) {
    const std::uint64_t turns = after.status.voluntarySwitches - before.status.voluntarySwitches;
    const std::uint64_t waitedMs = after.atMs - before.atMs;
    constexpr std::uint64_t tickMs = 1000; // of libcurl
    const std::uint64_t waiting = totalOf(&Socket::waitingBytes, after);
    const std::uint64_t waitingBefore = totalOf(&Socket::waitingBytes, before);
    // A full queue accepts no datagram, so an arrival proves nothing.
    const bool isFull = totalOf(&Socket::drops, after) > totalOf(&Socket::drops, before);
    const bool wasTaken =
        waiting < waitingBefore || (datagramArrived && !isFull && waiting == waitingBefore);
    return wasTaken || turns >= 2 + waitedMs / tickMs;
}

Finding judgeLife(const LifeFacts& facts) {
    const Look& look = facts.now;
    const std::string subject = "process " + std::to_string(look.pid);
    if (look.status.state == 0 || look.status.state == 'Z') {
        return bad("alive.ended", subject, "The daemon ended during this run.",
                   "Run the doctor again.");
    }
    if (look.status.state == 't') {
        return judgeTracing(subject, look);
    }
    if (look.status.state == 'T') {
        return bad("alive.suspended", subject, "The daemon is suspended by a signal.",
                   command("kill -CONT " + std::to_string(look.pid)));
    }
    if (isStarting(facts.active) && isStarting(look)) {
        return judgeStart(subject, look);
    }
    if (look.atMs - facts.active.atMs >= standstillMs) {
        return judgeQuiet(subject, facts);
    }
    if (!look.socketsAreSeen) {
        return unknown("alive.hidden", subject,
                       "The main thread works. The doctor does not run as root, so it cannot see "
                       "the daemon's sockets.",
                       runAsRoot);
    }
    if (!facts.isLinked && !facts.brokerIsBad) {
        return judgeLink(subject, facts);
    }
    return ok(subject);
}

Findings checkProcess(Gateway& gateway) {
    const auto& trusted = gateway.daemons.trusted;
    gateway.readHistory();
    Findings found = judgeRestarts(gateway);
    if (gateway.daemon == nullptr) {
        if (found.empty()) {
            found.push_back(judgeAbsence(gateway));
        }
        return found;
    }
    if (trusted.size() > 1) {
        return {judgeSecondDaemon(trusted, gateway.service.mainPid)};
    }
    found.push_back(lookAgain(gateway));
    return found;
}
