// What several parts of the program read. What other threads touch lives until the process is gone:
// the broker worker and the broker library's thread still run while main returns.
#pragma once

#include "common/Json.h"

#include <atomic>
#include <string>

// The configuration file's object. Start-up parses and completes it while it is alone; afterwards
// it is only read, from several threads, through const access (the other kind inserts members).
Json::Value& configurationForStartup();
const Json::Value& configuration();

// Proves knowledge of the gateway's identity when requests are signed. Built by start-up; only the
// main thread reads it.
extern std::string gatewaySecret;

// The stop flag: set by the signal handler and by the broker worker after a fatal client failure,
// polled by the upstream loop and by the worker.
extern std::atomic<unsigned char> shutdownRequested;

// The roles of this program among those that its sources serve. main sets them first thing.
extern std::atomic<bool> roleVeyra;
extern std::atomic<bool> roleNet;
