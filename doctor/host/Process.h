// The facts in /proc about a process and its sockets. Each file is read once per call. One thread;
// the caller owns the results.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <sys/types.h>
#include <vector>

// Such as /proc/12/status.
std::string processPath(int pid, const std::string& name);

// The entries of a directory that are numbers; none when it cannot be read.
std::vector<int> numbersIn(const std::string& directory);

// All 0 when the process does not exist.
struct ProcessStatus {
    bool hasOneUser = false; // its real, effective, saved and file system user are the same
    char state = 0;          // as in proc(5): S sleeping, T stopped, t traced, D in the kernel
    int tracerPid = 0;
    int parentPid = 0;
    uid_t uid = 0; // effective
    gid_t gid = 0;
    std::vector<gid_t> groups; // supplementary
    std::uint64_t threads = 0;
    std::uint64_t voluntarySwitches = 0; // how often the main thread has waited
    std::uint64_t virtualKib = 0;
};

ProcessStatus readProcessStatus(int pid);

// When the process was started, in seconds since 1970 by this machine's clock.
double startTimeOf(int pid);

// When this machine was started, by its clock.
std::time_t bootTime();

// The text for a process in the report: "process 12 (mosquitto)".
std::string describeProcess(int pid);

// The last kernel record about a daemon that was killed by the kernel or crashed. Empty when there
// is no record or the records cannot be read.
std::string kernelRecordOfDaemon();

struct Socket {
    bool isTcp = false;
    bool isOwn = false;                      // owned by the examined process
    unsigned state = 0;                      // as in the kernel's tcp_states.h
    std::string localAddress, remoteAddress; // as the kernel writes them, in hexadecimal
    int localPort = 0;
    int remotePort = 0;
    std::uint64_t inode = 0;
    std::uint64_t waitingBytes = 0;
    std::uint64_t drops = 0; // of UDP
};

constexpr unsigned tcpEstablished = 1;
constexpr unsigned tcpSynSent = 2;
constexpr unsigned tcpTimeWait = 6;

// One look at a process and its sockets. With the id 0, only the sockets of this machine.
struct Look {
    std::uint64_t atMs = 0; // monotonic
    int pid = 0;
    ProcessStatus status;
    std::string waitsIn;         // the kernel function in which its main thread waits, if known
    std::string blockedIn;       // the kernel function in which a thread waits for a reader, if any
    bool socketsAreSeen = false; // `isOwn` is known
    std::vector<Socket> sockets; // of all processes in its network namespace
};

Look lookAt(int pid);

// Whether the daemon has not started its broker worker yet: it waits for its first connection.
bool isStarting(const Look& look);

// The process that holds the socket; 0 when the doctor cannot find it within `limitMs`. Looks
// through all processes.
int ownerOf(std::uint64_t inode, long limitMs);

// Whether the address means 127.0.0.1 or includes it.
bool coversLoopback(const std::string& kernelAddress);

// Such as 192.0.2.1 or 2001:db8::1.
std::string addressText(const std::string& kernelAddress);
