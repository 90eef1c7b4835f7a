#include "host/Files.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <grp.h>
#include <pwd.h>
#include <stdexcept>
#include <sys/stat.h>
#include <sys/statvfs.h>

namespace fs = std::filesystem;

namespace {

constexpr std::size_t kernelFileBytes = 16 << 20; // a list of sockets can be this long

bool isNumber(const std::string& text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

} // namespace

ServiceUser userWithId(uid_t uid, gid_t gid) {
    const passwd* const entry = getpwuid(uid);
    if (entry == nullptr) {
        return {uid, gid, "user " + std::to_string(uid), {}};
    }
    ServiceUser user{uid, gid, entry->pw_name, {}};
    int count = 0;
    getgrouplist(entry->pw_name, gid, nullptr, &count);
    user.groups.resize(static_cast<std::size_t>(count));
    getgrouplist(entry->pw_name, gid, user.groups.data(), &count);
    return user;
}

std::optional<ServiceUser> findUser(const std::string& nameOrId) {
    if (isNumber(nameOrId)) {
        const auto id = static_cast<uid_t>(std::strtoul(nameOrId.c_str(), nullptr, 10));
        const passwd* const entry = getpwuid(id);
        return userWithId(id, entry == nullptr ? id : entry->pw_gid);
    }
    const passwd* const entry = getpwnam(nameOrId.c_str());
    if (entry == nullptr) {
        return std::nullopt;
    }
    return userWithId(entry->pw_uid, entry->pw_gid);
}

std::optional<gid_t> findGroup(const std::string& nameOrId) {
    if (isNumber(nameOrId)) {
        return static_cast<gid_t>(std::strtoul(nameOrId.c_str(), nullptr, 10));
    }
    const group* const entry = getgrnam(nameOrId.c_str());
    if (entry == nullptr) {
        return std::nullopt;
    }
    return entry->gr_gid;
}

std::string groupName(gid_t gid) {
    const group* const entry = getgrgid(gid);
    return entry == nullptr ? std::to_string(gid) : entry->gr_name;
}

ServiceUser packagedUser() {
    return findUser("lora-veyra").value_or(userWithId(0, 0));
}

// Changes only the effective ids: with the real id of the service user, that user could stop or
// kill the doctor. The supplementary groups of the service user remain afterwards, because root
// needs no groups of its own.
ActingAs::ActingAs(const ServiceUser& user)
    : changed(getuid() == 0 && user.uid != 0) {
    if (!changed) {
        return;
    }
    const bool hasGroups = setgroups(user.groups.size(), user.groups.data()) == 0;
    if (!hasGroups || setegid(user.gid) != 0 || seteuid(user.uid) != 0) {
        throw std::runtime_error("cannot act as the service user " + user.name);
    }
}

ActingAs::~ActingAs() {
    if (changed && (seteuid(0) != 0 || setegid(0) != 0)) {
        std::abort(); // the program must not continue with only part of another user's permissions
    }
}

int readText(const std::string& path, std::string& text, std::size_t limitBytes) {
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status {};
    if (file.get() < 0 || fstat(file.get(), &status) != 0) {
        return errno;
    }
    if (!S_ISREG(status.st_mode)) {
        return S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
    }
    const auto limit = static_cast<off_t>(limitBytes);
    if (status.st_size > limit) { // the kernel's own files have a size of 0
        lseek(file.get(), status.st_size - limit, SEEK_SET);
    }
    text.clear();
    std::array<char, 16384> part{};
    ssize_t count = 0;
    const std::size_t most = std::max<std::size_t>(limitBytes, kernelFileBytes);
    while (text.size() < most && (count = read(file.get(), part.data(), part.size())) > 0) {
        text.append(part.data(), static_cast<std::size_t>(count));
    }
    return count < 0 ? errno : 0;
}

std::string textOf(const std::string& path) {
    std::string text;
    readText(path, text);
    return text.substr(0, text.find_last_not_of('\n') + 1);
}

std::string linkTarget(const std::string& path) {
    std::error_code error;
    return fs::read_symlink(path, error);
}

bool onlyRootCanChange(const std::string& path) {
    constexpr mode_t writableForOthers = S_IWGRP | S_IWOTH;
    fs::path part;
    for (const fs::path& name : fs::path(path)) {
        part /= name;
        struct stat status {};
        if (lstat(part.c_str(), &status) != 0) {
            return errno == ENOENT;
        }
        const bool isLink =
            S_ISLNK(status.st_mode) || (S_ISREG(status.st_mode) && status.st_nlink > 1);
        if (isLink || status.st_uid != 0 || (status.st_mode & writableForOthers) != 0) {
            return false;
        }
    }
    return true;
}

int accessError(const std::string& path, int mode) {
    return faccessat(AT_FDCWD, path.c_str(), mode, AT_EACCESS) == 0 ? 0 : errno;
}

int writeError(const std::string& path) {
    std::error_code unseen; // accessError() below reports a directory that cannot be entered
    if (fs::is_directory(path, unseen)) {
        return EISDIR;
    }
    const bool isMissing = accessError(path, F_OK) == ENOENT;
    if (!isMissing) {
        return accessError(path, W_OK);
    }
    // open(2) creates a new file at the target of the last symbolic link.
    constexpr int mostLinks = 8;
    fs::path target = path;
    for (int count = 0; count < mostLinks && !linkTarget(target).empty(); ++count) {
        target = target.parent_path() / linkTarget(target);
    }
    return accessError(target.parent_path(), W_OK | X_OK);
}

std::uint64_t freeBytes(const std::string& path) {
    struct statvfs space {};
    // An existing log may be a symbolic link to a file on another disk.
    if (statvfs(path.c_str(), &space) != 0 &&
        statvfs(fs::path(path).parent_path().c_str(), &space) != 0) {
        return 0;
    }
    const bool countsFiles = space.f_files != 0;
    const bool isMissing = accessError(path, F_OK) != 0;
    const bool noFileLeft = countsFiles && isMissing && space.f_favail == 0;
    if (noFileLeft) {
        return 0;
    }
    return std::uint64_t{space.f_bavail} * space.f_frsize;
}
