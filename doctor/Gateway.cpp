#include "Gateway.h"

#include "common/Clock.h"
#include "mqtt/BrokerSettings.h"

#include <algorithm>
#include <filesystem>
#include <sys/stat.h>

namespace {

// 2 s before the alarm that ends the program, so that the report is still printed.
constexpr long runLimitMs = 23000;

} // namespace

Gateway::Gateway(const Options& given)
    : options(given)
    , isRoot(getuid() == 0)
    , startedMs(monotonicMillis())
    , service(readServiceState())
    , daemons(findDaemons(service, given.pid))
    , user(packagedUser())
    , configurationFile(VEYRA_DEFAULT_CONFIGURATION_FILE)
    , logFile(VEYRA_DEFAULT_LOG_FILE)
    , runDirectory(CommandLine().runDirectory) {
    int pid = 0;
    if (!daemons.trusted.empty()) {
        daemon = &daemons.trusted.front();
        pid = daemon->pid;
        user = daemon->user;
        configurationFile = daemon->commandLine.configurationFile;
        logFile = *daemon->commandLine.logFile;
        runDirectory = daemon->commandLine.runDirectory;
        takeProxies(daemon->proxies);
    } else {
        takeProxies({});
        if (userExists(service.user)) {
            user = userNamed(service.user);
        }
    }
    configurationFile = options.configurationFile.value_or(configurationFile);
    logFile = std::filesystem::absolute(options.logFile.value_or(logFile));
    runDirectory = options.runDirectory.value_or(runDirectory);
    firstLook = lookAt(pid);
}

long Gateway::limitMs(long wantedMs) const {
    const auto passedMs = static_cast<long>(monotonicMillis() - startedMs);
    return std::clamp(runLimitMs - passedMs, 0L, wantedMs);
}

std::string Gateway::rightsHint() const {
    return isRoot ? "" : "Run the doctor as root.";
}

bool Gateway::isOwnPath(const std::string& path) const {
    constexpr const char* plain =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/._-";
    const bool isPlain = path.find_first_not_of(plain) == std::string::npos;
    const bool isPackaged =
        path == VEYRA_DEFAULT_CONFIGURATION_FILE || path == VEYRA_DEFAULT_LOG_FILE;
    const bool isOwn = isPackaged || path == options.configurationFile || path == options.logFile;
    return isPlain && isOwn && onlyRootCanChange(path);
}

bool Gateway::mayReach(const std::string& path) const {
    const ActingAs actor(user);
    return accessError(std::filesystem::path(path).parent_path(), X_OK) == 0;
}

int Gateway::readAsService(const std::string& path, std::string& text,
                           std::size_t limitBytes) const {
    const ActingAs actor(user);
    return readText(path, text, limitBytes);
}

void Gateway::readHistory() {
    constexpr std::size_t longest = 4 << 20; // at the level TRACE this may cover only a few minutes
    if (configuration.isObject() && configuration["log"]["syslog"].asBool()) {
        return;
    }
    double startedAt = 0;
    if (daemon != nullptr) {
        startedAt = daemon->startedAt;
    }
    std::string text;
    const std::string file = asDaemonSees(logFile);
    logError = readAsService(file, text, longest);
    const auto read = [&] {
        return readLogHistory(text, std::time(nullptr), static_cast<std::time_t>(startedAt));
    };
    history = read();
    constexpr double toleranceS = 1;
    const auto firstAt = static_cast<double>(history.firstAt);
    const bool isCovered = firstAt != 0 && firstAt <= startedAt + toleranceS;
    if (daemon != nullptr && !isCovered && text.size() < longest) {
        // The log may have been rotated since the start.
        std::string before;
        readAsService(file + ".1", before, longest);
        text.insert(0, before);
        history = read();
    }
}

std::string Gateway::asDaemonSees(const std::string& path) const {
    if (daemon == nullptr) {
        return path;
    }
    const std::string root = processPath(daemon->pid, "root");
    const bool isVisible = accessError(root + "/", X_OK) == 0;
    return isVisible ? root + path : path;
}

std::time_t Gateway::changedSinceStart(const std::string& path) const {
    constexpr double toleranceS = 0.1; // the kernel rounds the start time to 0.01 s
    const ActingAs actor(user);
    struct stat status {};
    if (daemon == nullptr || stat(path.c_str(), &status) != 0) {
        return 0;
    }
    const double changedAt = static_cast<double>(status.st_mtim.tv_sec) +
                             static_cast<double>(status.st_mtim.tv_nsec) / 1e9;
    return changedAt > daemon->startedAt + toleranceS ? status.st_mtime : 0;
}

Look Gateway::look() {
    Look now = lookAt(firstLook.pid);
    const std::uint64_t inode = linkInode(now);
    // Even a broker that rejects the daemon keeps the connection open for a moment.
    linkLasts = linkLasts || (inode != 0 && !links.empty() && links.back() == inode);
    if (links.empty() || links.back() != inode) {
        links.push_back(inode);
    }
    return now;
}

bool Gateway::wasLinked() const {
    return disturbedLink || linkLasts;
}

std::uint64_t Gateway::linkInode(const Look& look) const {
    const int port = brokerAddress(configuration["mqtt"]).port;
    for (const Socket& socket : look.sockets) {
        if (socket.isOwn && socket.isTcp && socket.state == tcpEstablished &&
            socket.remotePort == port) {
            return socket.inode;
        }
    }
    return 0;
}
