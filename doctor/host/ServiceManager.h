// What the gateway's service manager knows of the daemon: systemd and its unit, else the process id
// file of the init script. One thread; what is returned is the caller's.
#pragma once

#include <string>

// What is not known is 0 or empty.
struct ServiceState {
    int mainPid = 0;
    std::string user;
    std::string configurationFile; // of the start command
    std::string result;            // how the last run ended, such as "oom-kill" or "success"
};

// Waits 3 s at most for systemd.
ServiceState readServiceState();

// The command that restarts (or with another word, such as "start", starts) the service here.
std::string serviceCommand(const std::string& word);
