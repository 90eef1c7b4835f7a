#include "host/Daemon.h"

#include "host/Process.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <sstream>
#include <stdexcept>
#include <sys/stat.h>

namespace fs = std::filesystem;

namespace {

constexpr std::array proxyNames = {"http_proxy", "https_proxy", "HTTPS_PROXY", "all_proxy",
                                   "ALL_PROXY",  "no_proxy",    "NO_PROXY"};

// Splits a list of texts that each end in a NUL byte.
std::vector<std::string> textsOf(const std::string& path) {
    std::istringstream all(textOf(path));
    std::vector<std::string> texts;
    for (std::string text; std::getline(all, text, '\0');) {
        texts.push_back(text);
    }
    return texts;
}

bool isInOtherNamespace(int pid, const std::string& name) {
    const std::string its = linkTarget(processPath(pid, name));
    return !its.empty() && its != linkTarget("/proc/self/" + name);
}

// A service with its own mount namespace still has the root directory of this host.
bool hasOtherRoot(int pid) {
    struct stat its {};
    struct stat own {};
    return stat(processPath(pid, "root/").c_str(), &its) == 0 && stat("/", &own) == 0 &&
           (its.st_dev != own.st_dev || its.st_ino != own.st_ino);
}

// A container may share the network namespace or the process namespace of this host, or both.
bool isInContainer(int pid) {
    return isInOtherNamespace(pid, "ns/net") || isInOtherNamespace(pid, "ns/pid") ||
           hasOtherRoot(pid);
}

// Whether the process runs a deleted program file of the daemon, as after an upgrade. The file
// counts only if root alone could write it. Its content distinguishes it from other deleted
// programs.
bool isDeletedDaemon(int pid, const struct stat& executable) {
    constexpr std::size_t largestProgram = 64 << 20;
    const std::string link = linkTarget(processPath(pid, "exe"));
    const bool isDeleted = executable.st_nlink == 0 || link.find(" (deleted)") != std::string::npos;
    if (!isDeleted || executable.st_uid != 0 || (executable.st_mode & 022U) != 0) {
        return false;
    }
    std::string program;
    readText(processPath(pid, "exe"), program, largestProgram);
    return program.find("ZEP LoRa VEYRA Server - Version") != std::string::npos;
}

bool mayRunDaemon(uid_t uid, const ServiceState& service) {
    const auto unitUser = findUser(service.user);
    const bool isUnitUser = unitUser && unitUser->uid == uid;
    return uid == 0 || uid == getuid() || uid == packagedUser().uid || isUnitUser;
}

CommandLine absoluteCommandLine(int pid) {
    const std::vector<std::string> texts = textsOf(processPath(pid, "cmdline"));
    std::vector<const char*> arguments;
    arguments.reserve(texts.size());
    for (const std::string& text : texts) {
        arguments.push_back(text.c_str());
    }
    CommandLine line = parseCommandLine(static_cast<int>(arguments.size()), arguments.data());
    const fs::path directory = linkTarget(processPath(pid, "cwd"));
    if (directory.empty()) { // the doctor's own directory would give wrong paths
        throw std::logic_error("the working directory cannot be read");
    }
    const auto absolute = [&](const std::string& path) {
        return (directory / path).lexically_normal().string();
    };
    line.configurationFile = absolute(line.configurationFile);
    line.logFile = absolute(line.logFileOrDefault());
    line.runDirectory = absolute(line.runDirectory);
    return line;
}

// The identity of a process. If the process changes its program or its user between two looks, this
// value changes too.
struct Identity {
    dev_t device = 0;
    ino_t inode = 0;
    double startedAt = 0;
    ProcessStatus status;
    bool isInstalled = false;
    bool isReplaced = false;

    bool operator==(const Identity& other) const {
        constexpr double clockToleranceS = 0.5; // the clock may be set meanwhile
        return device == other.device && inode == other.inode && status.uid == other.status.uid &&
               status.hasOneUser && other.status.hasOneUser &&
               std::abs(startedAt - other.startedAt) < clockToleranceS;
    }
};

Identity identify(int pid, const ServiceState& service) {
    Identity identity;
    struct stat installed {};
    struct stat executable {};
    identity.status = readProcessStatus(pid);
    identity.startedAt = startTimeOf(pid);
    if (stat(processPath(pid, "exe").c_str(), &executable) != 0) {
        return identity;
    }
    identity.device = executable.st_dev;
    identity.inode = executable.st_ino;
    identity.isInstalled = stat(installedProgram().c_str(), &installed) == 0 &&
                           executable.st_dev == installed.st_dev &&
                           executable.st_ino == installed.st_ino;
    // Checks the user first, because reading the programs of many processes takes a long time.
    identity.isReplaced = !identity.isInstalled && mayRunDaemon(identity.status.uid, service) &&
                          isDeletedDaemon(pid, executable);
    return identity;
}

bool hasControlCharacters(const CommandLine& line) {
    const std::string paths = line.configurationFile + *line.logFile + line.runDirectory;
    return std::any_of(paths.begin(), paths.end(), [](char character) {
        const auto byte = static_cast<unsigned char>(character);
        return byte < 0x20 || byte == 0x7F;
    });
}

// Whether a process that the caller did not name counts as the daemon.
bool isDaemonHere(int pid, const Identity& identity, const ServiceState& service,
                  Daemons& daemons) {
    if (!identity.isInstalled && !identity.isReplaced) {
        return false;
    }
    const bool isElsewhere = isInContainer(pid);
    const bool isTrusted = mayRunDaemon(identity.status.uid, service);
    if (isTrusted && isElsewhere) {
        daemons.elsewhere.push_back(pid);
    }
    if (!isTrusted && !isElsewhere) {
        daemons.untrusted.push_back(pid);
    }
    return isTrusted && !isElsewhere;
}

// Null when the process is not the daemon. A process that runs the program, but has the wrong user,
// other namespaces or control characters in its arguments, is added to the lists of `daemons`.
std::optional<Daemon> examine(int pid, const ServiceState& service, bool isNamed,
                              Daemons& daemons) {
    const Identity before = identify(pid, service);
    const bool isProgram = before.isInstalled || before.isReplaced;
    const bool isGone = before.status.state == 0 || before.status.state == 'Z';
    const bool isElsewhere = isInContainer(pid);
    if (isGone || (!isNamed && !isDaemonHere(pid, before, service, daemons))) {
        return std::nullopt;
    }
    try {
        Daemon daemon{pid,
                      userWithId(before.status.uid, before.status.gid),
                      before.startedAt,
                      before.isReplaced,
                      !isProgram || isElsewhere,
                      absoluteCommandLine(pid),
                      proxiesIn(textsOf(processPath(pid, "environ")))};
        daemon.user.groups = before.status.groups; // the service may have groups of its own
        // Equal identities: everything read in between belongs to the same program and user.
        if (!(before == identify(pid, service))) {
            return std::nullopt;
        }
        if (hasControlCharacters(daemon.commandLine)) { // no start command has them
            daemons.untrusted.push_back(pid);
            return std::nullopt;
        }
        return daemon;
    } catch (const std::logic_error&) { // an option without its value: the process is about to end
        return std::nullopt;
    }
}

} // namespace

std::string installedProgram() {
    return fs::path(linkTarget("/proc/self/exe")).parent_path() / "lora-veyra-server";
}

Daemons findDaemons(const ServiceState& service, std::optional<int> named) {
    Daemons daemons;
    for (const int pid : named ? std::vector<int>{*named} : numbersIn("/proc")) {
        if (auto daemon = examine(pid, service, named.has_value(), daemons)) {
            daemons.trusted.push_back(std::move(*daemon));
        }
    }
    if (named && daemons.trusted.empty()) {
        throw std::runtime_error("the process " + std::to_string(*named) + " cannot be examined");
    }
    std::sort(daemons.trusted.begin(), daemons.trusted.end(),
              [&](const Daemon& left, const Daemon& right) {
                  if ((left.pid == service.mainPid) != (right.pid == service.mainPid)) {
                      return left.pid == service.mainPid;
                  }
                  return left.startedAt < right.startedAt;
              });
    return daemons;
}

std::vector<std::string> proxiesIn(const std::vector<std::string>& environment) {
    constexpr std::size_t longest = 1000;
    std::map<std::string, std::string> first; // an environment may contain thousands of variables
    for (const std::string& entry : environment) {
        const std::string name = entry.substr(0, entry.find('='));
        const bool isProxy =
            std::find(proxyNames.begin(), proxyNames.end(), name) != proxyNames.end();
        if (isProxy && name.size() < entry.size() && entry.size() <= longest) {
            first.emplace(name, entry);
        }
    }
    std::vector<std::string> proxies;
    proxies.reserve(first.size());
    for (const auto& [name, entry] : first) {
        proxies.push_back(entry);
    }
    return proxies;
}

void takeProxies(const std::vector<std::string>& proxies) {
    for (const char* const name : proxyNames) {
        unsetenv(name);
    }
    for (const std::string& proxy : proxies) {
        const auto end = proxy.find('=');
        setenv(proxy.substr(0, end).c_str(), proxy.c_str() + end + 1, 1);
    }
}
