// Which process is the daemon. When root runs the doctor, the doctor opens the files that the
// arguments of this process name. An unprivileged user must therefore not be able to pass off
// another process as the daemon: the name, the arguments and the text of the links in /proc prove
// nothing. One thread; the caller owns the results.
#pragma once

#include "VeyraServer/CommandLine.h"
#include "host/Files.h"
#include "host/ServiceManager.h"

#include <optional>
#include <vector>

struct Daemon {
    int pid = 0;
    ServiceUser user;
    double startedAt = 0;    // seconds since 1970, by this machine's clock
    bool isReplaced = false; // the program file has been replaced since the start
    bool isForeign = false;  // runs another program, or in another network; only with --pid
    CommandLine commandLine; // with absolute paths
    std::vector<std::string> proxies; // the environment variables that libcurl reads: "name=value"
};

struct Daemons {
    std::vector<Daemon> trusted; // the daemon of the service manager first, then by age
    std::vector<int> untrusted;  // processes that run the installed program as another user
    std::vector<int> elsewhere;  // daemons in containers
};

// The installed program: "lora-veyra-server" in the directory of this program.
std::string installedProgram();

// A process is the daemon if both conditions hold. First, its executable is the installed program
// or a deleted program file that root owned. Second, it runs as root, as the service user or as the
// caller. The caller vouches for the process `named`: the executable of that process is not
// checked. Throws std::runtime_error when the process `named` cannot be examined.
Daemons findDaemons(const ServiceState& service, std::optional<int> named);

// The proxy variables that libcurl reads, from an environment. If a name occurs several times, the
// first variable counts, as in libcurl. Variables longer than 1000 characters are ignored.
std::vector<std::string> proxiesIn(const std::vector<std::string>& environment);

// Replaces the proxy settings of this process with `proxies`.
void takeProxies(const std::vector<std::string>& proxies);
