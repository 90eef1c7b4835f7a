// The checks in their order: gathers the facts of each, has them judged, and reports. What builds on
// something bad is not tried. One thread.
#pragma once

#include "Report.h"

#include <optional>

struct Options {
    std::optional<std::string> configurationFile, logFile, runDirectory, signedPath;
    int alive = 0; // flags as getopt_long(3) wants them
    int publish = 0;
    int json = 0;
    int help = 0;
    int version = 0;
};

// Looks for the daemon first: its files are examined where `options` names no others. Returns the
// exit status.
int examine(const Options& options, Report& report);
