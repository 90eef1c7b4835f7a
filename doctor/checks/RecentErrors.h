// Judges the faults in the daemon's log. A pure function, usable from any thread.
#pragma once

#include "Finding.h"
#include "host/LogHistory.h"

struct RecentFacts {
    std::string path; // of the log
    std::time_t now = 0;
    std::time_t bootedAt = 0;  // of this machine
    bool cloudIsOk = true;     // the check "cloud" found no problem
    long cloudStatus = 0;      // of an unsigned HEAD request; 0: there was no response
    bool brokerIsOk = true;    // the broker accepts the doctor
    bool replyWasSeen = false; // a request has succeeded during this run
    std::string kernelRecord;  // of a daemon that was killed or crashed
};

Findings judgeRecentErrors(const RecentFacts& facts, const LogHistory& history);
