// Whether the running daemon matches the daemon that the service would start now, and has enough
// resources.
#include "checks/Checks.h"
#include "cloud/CloudRequest.h"
#include "host/Text.h"

#include <sstream>

namespace {

// In percent: a process above this share of a limit will soon fail.
constexpr std::uint64_t nearLimit = 90;

void judgeProgram(const Gateway& gateway, Findings& found) {
    const std::string restart = "Restart:" + command(serviceCommand("restart"));
    if (gateway.daemon->isReplaced && accessError(installedProgram(), F_OK) != 0) {
        found.push_back(bad("service.program-deleted", installedProgram(),
                            "The program file was deleted after the daemon started.",
                            "Install the package again."));
    } else if (gateway.daemon->isReplaced) {
        found.push_back(bad("service.program-replaced", installedProgram(),
                            "The program file was replaced after the daemon started.", restart));
    }
    const auto& others = gateway.daemons.untrusted;
    if (!others.empty()) {
        found.push_back(
            bad("service.other-process", describeProcess(others.front()),
                "Another user runs the installed program too. The service did not start it. Number "
                "of such processes: " +
                    std::to_string(others.size()) + ".",
                "Stop every such process, and find out who starts it. To see the processes:" +
                    command("ps -o pid,user,args -C lora-veyra-server")));
    }
}

// The daemon reads its files once, at its start.
void judgeChanges(const Gateway& gateway, Findings& found) {
    const CommandLine& line = gateway.daemon->commandLine;
    const std::string files[] = {line.configurationFile,
                                 line.runDirectory + "/config/device_info.json", cloudCaFile};
    for (const std::string& file : files) {
        if (const std::time_t changedAt = gateway.changedSinceStart(file); changedAt != 0) {
            found.push_back(bad("service.changed-file", file,
                                "The file was written at " + utcText(changedAt) +
                                    ", after the start of the daemon at " +
                                    utcText(static_cast<std::time_t>(gateway.daemon->startedAt)) +
                                    ". If the content of the file changed, the daemon still uses "
                                    "the old content.",
                                "Restart:" + command(serviceCommand("restart"))));
        }
    }
}

void judgeUnit(const Gateway& gateway, Findings& found) {
    const ServiceState& service = gateway.service;
    const std::string restart =
        "Stop the running daemon. Then start the service:" + command(serviceCommand("start"));
    const std::string& file = gateway.daemon->commandLine.configurationFile;
    if (!service.configurationFile.empty() && service.configurationFile != file) {
        found.push_back(
            bad("service.other-configuration", file,
                "The daemon was started with this configuration file. The service uses " +
                    service.configurationFile + ".",
                restart));
    }
    const std::string& log = *gateway.daemon->commandLine.logFile;
    if (!service.logFile.empty() && service.logFile != log) {
        found.push_back(bad("service.other-log", log,
                            "The daemon was started with this log file. The service uses " +
                                service.logFile + ".",
                            restart));
    }
    const auto user = findUser(service.user);
    const bool isServiceUser = user && user->uid == gateway.daemon->user.uid;
    if (!service.user.empty() && !isServiceUser) {
        found.push_back(
            bad("service.other-user", gateway.daemon->user.name,
                "The daemon runs as this user. The user of the service is " + service.user + ".",
                restart));
    }
}

// The soft limit in a line such as "Max open files   1024   4096   files"; 0: none.
std::uint64_t limitOf(const std::string& limits, const std::string& name) {
    const auto place = limits.find(name);
    std::uint64_t limit = 0;
    if (place != std::string::npos) {
        std::istringstream(limits.substr(place + name.size())) >> limit;
    }
    return limit;
}

void judgeLimits(const Gateway& gateway, Findings& found) {
    const int pid = gateway.daemon->pid;
    const std::string limits = textOf(processPath(pid, "limits"));
    const std::uint64_t files = numbersIn(processPath(pid, "fd")).size();
    const std::uint64_t mostFiles = limitOf(limits, "Max open files");
    const std::uint64_t bytes = gateway.firstLook.status.virtualKib * 1024;
    const std::uint64_t mostBytes = limitOf(limits, "Max address space");
    const std::string fix = thenRestart("Raise the limit of the service.");
    constexpr std::uint64_t perRequest = 4; // descriptors that a request can need in addition
    if (mostFiles != 0 &&
        (files * 100 >= mostFiles * nearLimit || files + perRequest > mostFiles)) {
        found.push_back(bad("service.file-limit", "process " + std::to_string(pid),
                            "The daemon has " + std::to_string(files) +
                                " files open. The limit is " + std::to_string(mostFiles) + ".",
                            fix));
    }
    if (mostBytes != 0 && bytes * 100 >= mostBytes * nearLimit) {
        found.push_back(bad("service.memory-limit", "process " + std::to_string(pid),
                            "The daemon has " + std::to_string(bytes >> 20U) +
                                " MiB of address space. The limit is " +
                                std::to_string(mostBytes >> 20U) + " MiB.",
                            fix));
    }
}

} // namespace

Findings checkService(Gateway& gateway) {
    if (gateway.daemon == nullptr) {
        return {ok("no daemon was found")};
    }
    Findings found;
    judgeProgram(gateway, found);
    judgeChanges(gateway, found);
    if (!gateway.options.pid) { // with --pid, the unit may describe another process
        judgeUnit(gateway, found);
    }
    judgeLimits(gateway, found);
    if (found.empty()) {
        found.push_back(ok("running as " + gateway.daemon->user.name + " since " +
                           utcText(static_cast<std::time_t>(gateway.daemon->startedAt))));
    }
    return found;
}
