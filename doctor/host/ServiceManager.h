// The state of the daemon according to the gateway's service manager: systemd and the unit, or the
// process id file of the init script. One thread; the caller owns the results.
#pragma once

#include <string>

// Unknown members are 0 or empty.
struct ServiceState {
    int mainPid = 0;
    std::string user;
    std::string configurationFile; // of the start command
    std::string logFile;           // of the start command
    std::string result;            // how the last run ended, such as "oom-kill" or "success"
    bool isMasked = false;         // systemd refuses to start it
};

// Waits 3 s at most for systemd.
ServiceState readServiceState();

bool systemdRuns();

// The command that controls the service on this machine. `word` is the action, such as "restart".
std::string serviceCommand(const std::string& word);
