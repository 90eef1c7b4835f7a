// Files and permissions of this machine, as the service user sees them. Changes nothing. One
// thread; the caller owns the results.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <sys/types.h>
#include <unistd.h>
#include <vector>

// Owns a file descriptor and closes it.
class Descriptor {
  public:
    explicit Descriptor(int descriptor)
        : number(descriptor) {}
    ~Descriptor() {
        if (number >= 0) {
            close(number);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return number; }

  private:
    int number;
};

// The user that the daemon runs as.
struct ServiceUser {
    uid_t uid = 0;
    gid_t gid = 0;
    std::string name;
    std::vector<gid_t> groups; // supplementary
};

// The user with the groups that the user has after a login.
ServiceUser userWithId(uid_t uid, gid_t gid);

// The user or group with this name or numeric id, as in a unit file. Empty if the name is unknown.
std::optional<ServiceUser> findUser(const std::string& nameOrId);
std::optional<gid_t> findGroup(const std::string& nameOrId);

std::string groupName(gid_t gid);

// The user that the package creates; root if that user does not exist.
ServiceUser packagedUser();

// If the caller is root, the doctor acts as `user` while this object exists. Any other caller keeps
// its identity. Throws std::runtime_error when the system does not allow it.
class ActingAs {
  public:
    explicit ActingAs(const ServiceUser& user);
    ~ActingAs();
    ActingAs(const ActingAs&) = delete;
    ActingAs& operator=(const ActingAs&) = delete;

  private:
    bool changed;
};

// Reads the last `limitBytes` of a regular file into `text`. Never waits for a pipe or a device.
// Returns errno, or 0.
int readText(const std::string& path, std::string& text, std::size_t limitBytes = 1 << 20);

// The text of a file without a line feed at its end; empty when it cannot be read.
std::string textOf(const std::string& path);

// The target of a symbolic link; empty when it cannot be read.
std::string linkTarget(const std::string& path);

// Whether only root can change what this path leads to: the existing part of it has no symbolic
// link and belongs to root, and no other user can write there.
bool onlyRootCanChange(const std::string& path);

// Returns the errno that faccessat(2) would give the acting user for `path`; 0 if access is
// permitted.
int accessError(const std::string& path, int mode);

// Returns the errno that would keep the acting user from writing `path` or from creating it; else
// 0.
int writeError(const std::string& path);

// The free bytes that the current user can write in the directory of `path`. 0 when the value
// cannot be determined, or when the file does not exist and cannot be created.
std::uint64_t freeBytes(const std::string& path);
