#include "Gateway.h"

#include "common/Clock.h"
#include "mqtt/BrokerSettings.h"

#include <algorithm>
#include <filesystem>
#include <sys/stat.h>
#include <utility>

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
        proxies = daemon->proxies;
    } else {
        takeFromService();
    }
    takeProxies(proxies);
    configurationFile =
        std::filesystem::absolute(options.configurationFile.value_or(configurationFile));
    logFile = std::filesystem::absolute(options.logFile.value_or(logFile));
    runDirectory = options.runDirectory.value_or(runDirectory);
    firstLook = lookAt(pid);
}

// Without a daemon, its start command and its user are known from the unit or the init script.
void Gateway::takeFromService() {
    if (const auto found = findUser(service.user)) {
        user = *found;
        takeGroups();
    } else if (!service.user.empty()) {
        // The former owner of the log directory could link the log to a file of root.
        constexpr unsigned nobody = 65534;
        user = userWithId(nobody, nobody);
        userIsMissing = true;
    }
    proxies = proxiesIn(service.environment);
    if (!service.configurationFile.empty()) {
        configurationFile = service.configurationFile;
    }
    if (!service.logFile.empty()) {
        logFile = service.logFile;
    }
    struct stat status {};
    const std::filesystem::path log = options.logFile.value_or(logFile);
    if (service.user.empty() && user.uid == 0 && stat(log.parent_path().c_str(), &status) == 0) {
        // The owner of the directory could link the log to a file of root.
        user = userWithId(status.st_uid, status.st_gid);
    }
}

void Gateway::takeGroups() {
    if (const auto group = findGroup(service.group)) {
        user = userWithId(user.uid, *group);
    }
    for (const std::string& group : service.groups) {
        user.groups.push_back(findGroup(group).value_or(user.gid));
    }
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
    const bool isGiven = (options.configurationFile && path == configurationFile) ||
                         (options.logFile && path == logFile);
    return isPlain && (isPackaged || isGiven) && onlyRootCanChange(path);
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
    const Json::Value& log = std::as_const(configuration)["log"];
    if (log["syslog"].asBool()) {
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
    constexpr unsigned trace = 50;
    if (log["level"].asUInt() < trace) {
        history.lastSuccessAt = 0; // the daemon does not write this record, so it is forged
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

bool Gateway::isConfigurationCurrent() const {
    return daemon != nullptr && configuration.isObject() &&
           configurationFile == daemon->commandLine.configurationFile &&
           changedSinceStart(configurationFile) == 0;
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
    // A file time in the future was written with a wrong clock, so it proves nothing.
    const bool isPast = status.st_mtime <= std::time(nullptr);
    return isPast && changedAt > daemon->startedAt + toleranceS ? status.st_mtime : 0;
}

Look Gateway::look() {
    Look now = lookAt(firstLook.pid);
    const std::uint64_t inode = linkInode(now);
    // Even a broker that rejects the daemon keeps the connection open for a moment.
    wasLinked = wasLinked || (inode != 0 && !links.empty() && links.back() == inode);
    if (links.empty() || links.back() != inode) {
        links.push_back(inode);
    }
    return now;
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
