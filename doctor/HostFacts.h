// Looks at this machine: files as the service's user sees them, processes, sockets. Changes
// nothing. One thread; what is returned is the caller's.
#pragma once

#include "VeyraServer/CommandLine.h"

#include <cstdint>
#include <string>
#include <vector>

struct Daemon {
    int pid = 0;
    CommandLine commandLine; // its files with the daemon's working folder in front
};

// The daemons of this network. A dead one that nobody has waited for is none.
std::vector<Daemon> findDaemons();

// Root acts as the user of a daemon, or with 0 as the package's, while this lives; everybody else as
// himself.
class AsUserOf {
  public:
    explicit AsUserOf(int pid);
    ~AsUserOf();
    AsUserOf(const AsUserOf&) = delete;
    AsUserOf& operator=(const AsUserOf&) = delete;

  private:
    bool changed;
};

// The process's environment becomes this one's, proxies above all; none when it cannot be read.
void takeEnvironmentOf(int pid);

// The value of `name` in the process's status, 0 when it cannot be read.
std::uint64_t statusOf(int pid, const std::string& name);

// A file of the process's folder in /proc, such as comm, without a line feed at its end.
std::string processFile(int pid, const std::string& name);

struct Socket {
    std::string address; // as the kernel writes it
    bool isTcp = false;  // else UDP
    int port = 0;
    int remotePort = 0;
    unsigned state = 0;
    std::uint64_t waitingBytes = 0;
    std::uint64_t drops = 0; // UDP only
    int owner = 0;           // process; 0: nobody that may be seen
};

// All of this network, IPv4 and IPv6.
std::vector<Socket> readSockets();

// Whether the sockets of the process show it as their owner.
bool maySeeSockets(int pid);

// Where an absolute path leads by the mounts of the process, if that may be seen; else the path.
std::string viewOf(int pid, const std::string& path);

// The last MiB of a file. Returns errno of opening it, or 0.
int readText(const std::string& path, std::string& text);

// errno of what would keep the current user from writing `path`, or from making it; else 0.
int mayWrite(const std::string& path);

// What the current user may still write where `path` is.
std::uint64_t freeBytes(const std::string& path);

// Whether a syslog daemon takes records.
bool syslogListens();
