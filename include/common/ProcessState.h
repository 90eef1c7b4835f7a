// State that several parts of the program read. State that other threads use is never destroyed:
// the broker worker and the broker library's thread still run while main returns.
#pragma once

#include "common/Json.h"

#include <atomic>
#include <string>

// The root of the configuration. Startup parses and completes it while no other thread runs. After
// that, several threads read it, through const access only: non-const access inserts members.
Json::Value& configurationForStartup();
const Json::Value& configuration();

// Signs the requests to the cloud. Built at startup; only the main thread reads it.
extern std::string gatewaySecret;

// The stop flag. The signal handler sets it, and so does the broker worker when it cannot create a
// client. The upstream loop and the worker poll it.
extern std::atomic<unsigned char> shutdownRequested;

// The role of this program: the same sources also build the network server. main sets both flags
// first.
extern std::atomic<bool> roleVeyra;
extern std::atomic<bool> roleNet;
