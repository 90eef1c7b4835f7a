#include "checks/Absence.h"

#include "checks/Checks.h"
#include "host/Text.h"

#include <ZEP/Licence.h>

namespace {

constexpr const char* findOthers =
    "Stop this process, and find out who starts it. To see the processes:\n"
    "ps -o pid,user,args -C lora-veyra-server";
constexpr const char* findCause = "See the daemon's last records: journalctl -u lora-veyra-server";

std::string lastErrorOf(const Gateway& gateway) {
    constexpr std::size_t longest = 200;
    const std::string& error = gateway.history.lastError;
    if (error.empty()) {
        return {};
    }
    return " The last error in the daemon's log: \"" + printable(masked(error)).substr(0, longest) +
           "\".";
}

// How the last run ended, according to the service manager, the kernel and the log.
Finding judgeEnd(const Gateway& gateway, const std::string& subject) {
    const std::string start = "Start it: " + serviceCommand("start");
    const std::string error = lastErrorOf(gateway);
    const std::string& result = gateway.service.result;
    if (!result.empty() && result != "success") {
        return bad("alive.killed", subject,
                   "The daemon is not running. systemd reports: " + result + "." + error, start);
    }
    if (gateway.history.isStopped) {
        return bad("alive.stopped", subject,
                   "The daemon is not running: it was stopped by SIGTERM or SIGINT.", start);
    }
    if (const std::string kernel = kernelRecordOfDaemon(); !kernel.empty()) {
        return bad("alive.killed", subject,
                   "The daemon is not running. The kernel logged this about a process with the "
                   "same name: " +
                       kernel + "." + error,
                   start);
    }
    if (gateway.history.startedAt != 0 && error.empty()) {
        return bad(
            "alive.killed", subject,
            "The daemon is not running. It was killed or it aborted: its log has no stop record.",
            start + "\nTo see the reason: journalctl -u lora-veyra-server");
    }
    if (!error.empty()) {
        return bad("alive.not-running", subject, "The daemon is not running." + error,
                   "Fix the cause of this error.\n" + start);
    }
    return bad("alive.not-running", subject, "The daemon is not running.", start);
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
                    " times within 3 minutes. It ended each time without a stop record." +
                    lastErrorOf(gateway),
                gateway.problems.empty() ? findCause : "Fix the problems above first.")};
}

Finding judgeAbsence(const Gateway& gateway) {
    const std::string subject = installedProgram();
    if (!gateway.isRoot) {
        return unknown("alive.hidden", subject,
                       "No process of this user runs the program. This user has no permission to "
                       "see the processes of other users.",
                       runAsRoot);
    }
    if (!gateway.daemons.untrusted.empty()) {
        const int pid = gateway.daemons.untrusted.front();
        return bad("alive.other-user", subject,
                   "The program runs as a user other than " + gateway.user.name + ": " +
                       describeProcess(pid) + ". This process is not the daemon of the service.",
                   std::string(findOthers) + "\n" + serviceCommand("start"));
    }
    const ActingAs service(gateway.user);
    if (!ZEP::Licence::check()) {
        return bad("alive.no-licence", subject,
                   "The licence check rejects this hardware. The daemon ends with status 1.",
                   "Install the platform library that belongs to this gateway.");
    }
    return judgeEnd(gateway, subject);
}
