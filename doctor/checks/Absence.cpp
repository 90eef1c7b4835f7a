#include "checks/Absence.h"

#include "checks/Checks.h"
#include "host/Text.h"

#include <ZEP/Licence.h>

#include <sys/stat.h>

namespace {

std::string lastErrorOf(const Gateway& gateway) {
    const std::string& error = gateway.history.lastError;
    if (error.empty()) {
        return {};
    }
    return " The last error in the daemon's log: " + quoted(error) + ".";
}

// How the last run ended, according to the service manager, the kernel and the log.
Finding judgeEnd(const Gateway& gateway, const std::string& subject) {
    const std::string start = "Start the daemon:" + command(serviceCommand("start"));
    const std::string error = lastErrorOf(gateway);
    const std::string& result = gateway.service.result;
    if (!result.empty() && result != "success") {
        return bad("alive.killed", subject,
                   "The daemon is not running. systemd reports: " + result + "." + error,
                   start + "\n" + seeWhy());
    }
    if (gateway.history.isStopped) {
        return bad("alive.stopped", subject,
                   "The daemon is not running. According to the log, SIGTERM or SIGINT stopped it.",
                   start);
    }
    if (const std::string kernel = kernelRecordOfDaemon(); !kernel.empty()) {
        return bad("alive.killed", subject,
                   "The daemon is not running. The kernel logged this about a process with the "
                   "daemon's name: " +
                       kernel + "." + error,
                   start);
    }
    if (gateway.history.startedAt != 0 && error.empty()) {
        return bad("alive.killed", subject,
                   "The daemon is not running. It was killed or it aborted: the log has no record "
                   "\"Shutdown signal received\".",
                   start + "\n" + seeWhy());
    }
    if (!error.empty()) {
        return bad("alive.not-running", subject, "The daemon is not running." + error,
                   "Fix the cause of this error.\n" + start);
    }
    return bad("alive.not-running", subject, "The daemon is not running.", start + "\n" + seeWhy());
}

// What makes every start fail; empty when nothing is known.
Findings judgeObstacle(const Gateway& gateway, const std::string& subject) {
    const std::string& loadState = gateway.service.loadState;
    if (loadState == "masked") {
        return {bad("alive.masked", subject, "The unit is masked, so systemd refuses to start it.",
                    "Unmask and start it:" + command("systemctl unmask lora-veyra-server") +
                        command(serviceCommand("start")))};
    }
    if (!loadState.empty() && loadState != "loaded") {
        return {bad("alive.no-unit", subject,
                    "systemd cannot load the unit. Its load state is " + loadState + ".",
                    "Install the package again, or correct the unit:" +
                        command("systemctl status lora-veyra-server"))};
    }
    const ActingAs service(gateway.user);
    struct stat status {};
    const bool isEmpty = stat(subject.c_str(), &status) == 0 && status.st_size == 0;
    if (isEmpty || accessError(subject, X_OK) != 0) {
        return {bad("alive.not-executable", subject,
                    "The program is missing, empty or not executable for the user " +
                        gateway.user.name + ".",
                    "Install the package again.")};
    }
    if (!ZEP::Licence::check()) {
        return {bad("alive.no-licence", subject,
                    "The licence check rejects this hardware. The daemon ends with exit status 1.",
                    "Install the platform library that belongs to this gateway.")};
    }
    return {};
}

} // namespace

Findings judgeRestarts(const Gateway& gateway) {
    constexpr int loopStarts = 4;
    const int starts = gateway.history.recentStarts;
    if (starts < loopStarts) {
        return {};
    }
    return {bad("alive.restart-loop", installedProgram(),
                "The daemon was started " + std::to_string(starts) +
                    " times within 3 minutes. Each run ended without the record \"Shutdown "
                    "signal received\"." +
                    lastErrorOf(gateway),
                gateway.problems.empty() ? seeWhy() : "Fix the problems above first.")};
}

Finding judgeAbsence(const Gateway& gateway) {
    const std::string subject = installedProgram();
    if (!gateway.isRoot) {
        return unknown("alive.hidden", subject,
                       "The doctor does not run as root, so it sees only your own processes. None "
                       "of them is the daemon.",
                       runAsRoot);
    }
    if (gateway.userIsMissing && !gateway.service.hasDynamicUser) {
        return bad("alive.no-user", subject,
                   "The service user " + gateway.service.user + " does not exist.",
                   "Install the package again, or correct User= in the unit.");
    }
    if (!gateway.daemons.untrusted.empty()) {
        const int pid = gateway.daemons.untrusted.front();
        return bad("alive.other-user", subject,
                   "The program runs as a user other than " + gateway.user.name + ": " +
                       describeProcess(pid) + ". This process is not the daemon of the service.",
                   "Stop this process, and find out who starts it. To see the processes:" +
                       command("ps -o pid,user,args -C lora-veyra-server") +
                       "\nStart the service:" + command(serviceCommand("start")));
    }
    if (!gateway.daemons.elsewhere.empty()) {
        const int pid = gateway.daemons.elsewhere.front();
        return unknown(
            "alive.other-network", subject,
            "No daemon runs directly on this host. A daemon runs in another network or process "
            "namespace, or with another root directory, for example in a container: " +
                describeProcess(pid) + ".",
            "If that is the daemon of this gateway:" +
                command("lora-veyra-doctor --pid " + std::to_string(pid)));
    }
    if (Findings found = judgeObstacle(gateway, subject); !found.empty()) {
        return found.front();
    }
    return judgeEnd(gateway, subject);
}
