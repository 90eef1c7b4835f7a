// The checks. Each examines one aspect of the gateway, in a file of its own, and returns what it
// found: one or more problems, or one finding that is ok or unknown. Checks change nothing on the
// gateway; "signature" and "replies" send what the technician asked for. One thread.
#pragma once

#include "Finding.h"
#include "Gateway.h"

Findings checkConfiguration(Gateway& gateway);
Findings checkSettings(Gateway& gateway);
Findings checkIdentity(Gateway& gateway);
Findings checkLogFile(Gateway& gateway);
Findings checkCloud(Gateway& gateway);
Findings checkClock(Gateway& gateway);
Findings checkSignature(Gateway& gateway);
Findings checkPort(Gateway& gateway);
Findings checkBroker(Gateway& gateway);
Findings checkProcess(Gateway& gateway);
Findings checkService(Gateway& gateway);
Findings checkEcho(Gateway& gateway);
Findings checkReplies(Gateway& gateway);
Findings checkTraffic(Gateway& gateway);
Findings checkRecentErrors(Gateway& gateway);

// Appends "Then restart: COMMAND" to a fix that takes effect at the next start.
std::string thenRestart(const std::string& fix);

// Says where the reason for an unexpected end is recorded on this gateway, with a command.
std::string seeWhy();

// The fix if the caller has no permission.
constexpr const char* runAsRoot = "Run the doctor as root.";
