// Judges what can be seen of the daemon on this machine: its identity, its log, its port, its life.
// Pure functions, usable from any thread.
#pragma once

#include "Verdict.h"
#include "common/Json.h"

#include <cstdint>
#include <ctime>
#include <map>

// `isRoot`: looked at as the service's user, as only root can; else a right that is missing proves
// nothing.
struct IdentityFacts {
    std::string path; // of the device information
    bool isRoot = true;
    int error = 0;      // errno of reading it
    Json::Value device; // null when it counts as missing
    Json::Value network;
};

Verdict judgeIdentity(const IdentityFacts& facts);

// The first 8 digits of the secret's SHA-256; empty when no secret can be made.
std::string fingerprint(const Json::Value& device, const Json::Value& network);

struct LogFacts {
    std::string path;
    bool isRoot = true;
    int error = 0; // errno of what keeps it from being written
    std::uint64_t freeBytes = 0;
    bool toSyslog = false;
    bool syslogListens = false;
};

Verdict judgeLog(const LogFacts& facts);

struct PortFacts {
    int port = 0;
    int daemon = 0;         // its process id; 0: none runs
    bool daemonSeen = true; // its sockets may be seen
    bool taken = false;     // a socket is in the daemon's way
    int owner = 0;          // of that socket; 0: not to be seen
    std::string ownerName;
    std::uint64_t drops = 0;
    int elsewhere = 0; // the port that the daemon has instead
};

Verdict judgePort(const PortFacts& facts);

// What the log says since the last start, and of the starts.
struct Tail {
    struct Event {
        int count = 0;
        std::time_t last = 0;
    };
    std::map<std::string, Event> events;
    std::string lastError;
    int startsLately = 0; // that followed no stop
    bool stopped = false; // the last start has been followed by one
    bool wedged = false;  // the record after which the daemon relays no more
};

Tail readTail(const std::string& text, std::time_t now);
Verdict judgeTail(const std::string& path, const Tail& tail, std::time_t now);

// One look at a running daemon.
struct Look {
    std::uint64_t atMs = 0;
    int pid = 0; // 0: it does not run
    std::uint64_t threads = 0;
    std::uint64_t switches = 0; // how often its main thread has waited
    std::string waitsIn;        // of the kernel; "0" or empty when it does not tell
    std::uint64_t waitingBytes = 0;
    bool seen = false;        // its sockets may be seen, and the configuration says which to expect
    bool listens = false;     // on the configured port
    bool linked = false;      // to the broker
    bool isStopped = false;   // by a signal
    bool mayBeHidden = false; // processes of others are not to be seen
};

Verdict judgeAlive(const Look& first, const Look& second, const Tail& tail);

// Such as 2026-11-21 10:00:04Z.
std::string utcText(std::time_t time);
