#include "VeyraServer/CommandLine.h"

#include "VeyraServer/Version.h"

#include <cstdio>
#include <stdexcept>
#include <string_view>

namespace {

// The network server, which is built from the same sources, also prints this text. Of these options
// only -c, -l, --version and --help have an effect in this program.
constexpr const char* usageText =
    "Usage: lora-net-server [-c file] [-l file] [-d file] [-u port] [-n port]\n"
    "                       [--version] [--help]\n"
    "  -c file     configuration file\n"
    "  -l file     log file\n"
    "  -d file     database of devices, sessions and profiles\n"
    "  -u port     UDP port for packet forwarders\n"
    "  -n port     UDP port for commands\n"
    "  --version   print the version and exit\n"
    "  --help      print this text and exit\n";

std::string valueAfter(int index, int argc, const char* const* argv) {
    if (index + 1 >= argc) {
        throw std::logic_error(std::string("missing value after ") + argv[index]);
    }
    return argv[index + 1];
}

} // namespace

std::string CommandLine::logFileOrDefault() const {
    return logFile.value_or("/var/log/lora-veyra-server.log");
}

CommandLine parseCommandLine(int argc, const char* const* argv) {
    CommandLine commandLine;
    for (int index = 1; index < argc && commandLine.banner == Banner::NONE; ++index) {
        const std::string_view argument = argv[index];
        if (argument == "-c") {
            commandLine.configurationFile = valueAfter(index, argc, argv);
        } else if (argument == "-l") {
            commandLine.logFile = valueAfter(index, argc, argv);
        } else if (argument == "--var-run") {
            commandLine.runDirectory = valueAfter(index, argc, argv);
        } else if (argument == "--version") {
            commandLine.banner = Banner::VERSION;
        } else if (argument == "-help" || argument == "--help") {
            commandLine.banner = Banner::HELP;
        }
    }
    return commandLine;
}

void printBanner(Banner banner) {
    if (banner == Banner::VERSION) {
        std::printf("ZEP LoRa VEYRA Server - Version %s\r\n", programVersion);
    } else if (banner == Banner::HELP) {
        std::printf("Tarnwick Lora VEYRA Server v%s\n\n", programVersion);
        std::printf("%s\n", usageText);
    }
}
