// Which process is the daemon. Root's diagnosis follows what this process was started with, so an
// unprivileged user must not be able to pass a process of his own off as the daemon: its name, its
// arguments and the text of its links in /proc prove nothing. One thread; what is returned is the
// caller's.
#pragma once

#include "VeyraServer/CommandLine.h"
#include "host/Files.h"
#include "host/ServiceManager.h"

#include <ctime>
#include <optional>
#include <vector>

struct Daemon {
    int pid = 0;
    ServiceUser user;
    double startedAt = 0;             // seconds since 1970, by this machine's clock
    bool isReplaced = false;          // its program file was replaced since it was started
    CommandLine commandLine;          // with absolute paths
    std::vector<std::string> proxies; // what libcurl reads of its environment: "name=value"
};

struct Daemons {
    std::vector<Daemon> trusted; // the one that the service manager knows first, else the oldest
    std::vector<int> untrusted;  // run the installed program as a user who is not the service's
};

// The installed program: "lora-veyra-server" in the directory of this program.
std::string installedProgram();

// A process counts when its executable is the installed program, or a deleted one of root's, and it
// runs as root, as the service user or as the caller. `named` is a process that the caller vouches
// for: it counts whatever its executable is.
Daemons findDaemons(const ServiceState& service, std::optional<int> named);

// Replaces the proxy settings of this process by the daemon's.
void takeProxies(const std::vector<std::string>& proxies);
