// The service according to the gateway's service manager: systemd, or the init script and its
// process id file. One thread; the caller owns the results.
#pragma once

#include <string>
#include <vector>

// Unknown members are 0 or empty.
struct ServiceState {
    int mainPid = 0;
    std::string user, group;
    bool hasDynamicUser = false;          // systemd creates the user at each start
    std::vector<std::string> groups;      // supplementary
    std::vector<std::string> environment; // such as "https_proxy=http://192.0.2.1:3128"
    std::string configurationFile;        // of the start command
    std::string logFile;                  // of the start command
    std::string result;                   // how the last run ended, such as "oom-kill" or "success"
    std::string loadState;                // LoadState= of the unit, such as "masked"
};

// Asks systemd for at most 3 s. If systemd does not answer, reads the unit or the init script.
ServiceState readServiceState();

bool systemdRuns();

// The command that controls the service on this machine. `word` is the action, such as "restart".
std::string serviceCommand(const std::string& word);
