// Whether the daemon can write its log, and writes it at the configured path.
#include "checks/Checks.h"
#include "host/Text.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

namespace {

constexpr std::uint64_t leastFreeBytes = 65536;

bool syslogListens() {
    const Descriptor descriptor(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    constexpr sockaddr_un address = {AF_UNIX, "/dev/log"};
    const int result =
        connect(descriptor.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    return result == 0 || errno == EPROTOTYPE; // some syslog daemons have a stream socket
}

Finding judgeSyslog(const ServiceUser& user) {
    const ActingAs service(user);
    if (!syslogListens()) {
        return bad("log.no-syslog", "/dev/log",
                   "log.syslog is true, but no syslog daemon accepts records from the user " +
                       user.name + ".",
                   thenRestart("Install a syslog daemon, correct the permissions of /dev/log, or "
                               "set log.syslog to false."));
    }
    return ok("syslog");
}

Finding judgeWriteError(const Gateway& gateway, int error) {
    const std::string& path = gateway.logFile;
    const std::string cause = std::string(std::strerror(error)) + ".";
    if (error == EACCES && !gateway.isRoot) {
        return unknown("log.hidden", path, cause, runAsRoot);
    }
    if (error == ENOENT && gateway.isOwnPath(path)) {
        const std::string directory = std::filesystem::path(path).parent_path();
        std::string owner = std::to_string(gateway.user.uid);
        if (findUser(gateway.user.name)) {
            owner = gateway.user.name;
        }
        return bad("log.not-writable", path, "The directory does not exist.",
                   thenRestart(command("install -d -m 750 -o " + owner + " " + directory)));
    }
    if (error == EROFS) {
        return bad(
            "log.not-writable", path, cause,
            thenRestart("Make the file system writable, or correct -l in the start command."));
    }
    return bad("log.not-writable", path,
               "The user " + gateway.user.name + " cannot write the file: " + cause,
               thenRestart("Give this user write permission, or correct -l in the start command."));
}

// The file that the running daemon has open for appending, if that is not the file at the log's
// path. Empty for a logger that opens the file for each record.
std::string otherOpenLog(const Gateway& gateway) {
    struct stat expected {};
    const bool exists = stat(gateway.asDaemonSees(gateway.logFile).c_str(), &expected) == 0;
    for (const int descriptor : numbersIn(processPath(gateway.daemon->pid, "fd"))) {
        const std::string link =
            processPath(gateway.daemon->pid, "fd/" + std::to_string(descriptor));
        struct stat own {};
        struct stat rights {};
        const bool isFile = stat(link.c_str(), &own) == 0 && S_ISREG(own.st_mode);
        const bool isWritten = lstat(link.c_str(), &rights) == 0 && (rights.st_mode & S_IWUSR) != 0;
        if (descriptor <= STDERR_FILENO || !isFile || !isWritten) {
            continue;
        }
        if (!exists || own.st_dev != expected.st_dev || own.st_ino != expected.st_ino) {
            return linkTarget(link);
        }
        return {};
    }
    return {};
}

Finding judgeFile(const Gateway& gateway) {
    const ActingAs service(gateway.user);
    const std::string view = gateway.asDaemonSees(gateway.logFile);
    const std::uint64_t free = freeBytes(view);
    if (const int error = writeError(view); error != 0) {
        return judgeWriteError(gateway, error);
    }
    if (free < leastFreeBytes) {
        return bad("log.disk-full", gateway.logFile,
                   "The disk has no space or no inode left: log records are lost.",
                   "Delete files on this disk. To see whether space or inodes are missing:" +
                       command("df -h") + command("df -i"));
    }
    Json::Value facts;
    facts["freeMiB"] = Json::UInt64{free >> 20U};
    return ok(gateway.logFile, facts);
}

} // namespace

Findings checkLogFile(Gateway& gateway) {
    if (gateway.configuration["log"]["syslog"].asBool()) {
        return {judgeSyslog(gateway.user)};
    }
    std::string other;
    if (gateway.daemon != nullptr && gateway.logFile == *gateway.daemon->commandLine.logFile) {
        other = otherOpenLog(gateway);
    }
    if (!other.empty()) {
        return {bad("log.moved", gateway.logFile,
                    "The log file was moved or deleted while the daemon had it open. The daemon "
                    "writes to " +
                        printable(other) + ".",
                    "Restart:" + command(serviceCommand("restart")))};
    }
    return {judgeFile(gateway)};
}
