// The command line, and the version and help texts. Main thread, at startup.
#pragma once

#include <optional>
#include <string>

// A text that the command line asks for. The program prints it and ends with status 0.
enum class Banner { NONE, VERSION, HELP };

struct CommandLine {
    std::string configurationFile = "./lora-veyra-server.conf";
    std::optional<std::string> logFile; // only when given
    std::string runDirectory = "/var/run";
    Banner banner = Banner::NONE;

    // The given log file or the default one.
    std::string logFileOrDefault() const;
};

// Reads the arguments in order and stops at the first that asks for a banner. Unknown arguments are
// ignored. The value of an option is also examined as an argument. Throws std::logic_error when
// the value of an option is missing.
CommandLine parseCommandLine(int argc, const char* const* argv);

// Prints the banner to standard output.
void printBanner(Banner banner);
