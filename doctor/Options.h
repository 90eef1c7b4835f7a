// The command line of the doctor. Main thread, at startup.
#pragma once

#include <optional>
#include <string>

struct Options {
    std::optional<std::string> configurationFile, logFile, runDirectory, signedPath;
    std::optional<int> pid;
    int alive = 0; // flags as getopt_long(3) wants them
    int publish = 0;
    int json = 0;
    int help = 0;
    int version = 0;
    std::string fault; // the error in the arguments; empty when they are valid
};

Options parseOptions(int argc, char** argv);

extern const char* const usageText;
