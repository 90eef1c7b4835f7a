// The command line, the version and help banners. Main thread, at start-up.
#pragma once

#include <optional>
#include <string>

struct CommandLine {
    std::string configurationFile = "./lora-veyra-server.conf";
    std::optional<std::string> logFile; // only when given
    std::string runDirectory = "/var/run";
    bool bannerShown = false; // the version or the help was asked for: end with status 0

    // The given log file or the default one.
    std::string logFileOrDefault() const;
};

// Reads the arguments in order; --version and --help print to standard output and end the reading.
// Unknown arguments are ignored. An option's value is looked at as an argument in turn. Throws
// std::logic_error when an option's value is missing.
CommandLine parseCommandLine(int argc, const char* const* argv);
