#include "Options.h"

#include <charconv>
#include <cstring>
#include <getopt.h>
#include <map>

const char* const usageText =
    "Usage: lora-veyra-doctor [-c FILE] [-l FILE] [--var-run DIR] [--pid PID] [--alive]\n"
    "                         [--json] [--publish] [--sign PATH]\n"
    "Finds out what is wrong with this gateway. Run it as root.\n"
    "  -c FILE            the configuration file of lora-veyra-server\n"
    "  -l FILE            the log file of lora-veyra-server\n"
    "  --var-run DIR      the directory that contains config/device_info.json\n"
    "                     Defaults of -c, -l and --var-run: the paths that the\n"
    "                     running daemon uses; if no daemon runs, the paths of\n"
    "                     the service\n"
    "  --pid PID          examine this process, for example one in a container\n"
    "  --alive            only check whether the daemon runs and works\n"
    "  --json             print one JSON object\n"
    "  --publish          also publish one message on lora/veyra\n"
    "  --sign PATH        also send one signed GET request for PATH, for example\n"
    "                     m1/gateways/SN0042/check_in\n"
    "  --help, --version  print and exit\n"
    "Exit status: 0 no problem was found, 1 a problem was found, 2 wrong arguments,\n"
    "the doctor failed, or it did not run as root and could not examine everything;\n"
    "see lora-veyra-doctor(8).\n";

namespace {

std::optional<int> parsePid(const char* text) {
    int pid = 0;
    const char* const end = text + std::strlen(text);
    const auto [rest, error] = std::from_chars(text, end, pid);
    if (error != std::errc() || rest != end || pid <= 0) {
        return std::nullopt;
    }
    return pid;
}

} // namespace

Options parseOptions(int argc, char** argv) {
    Options given;
    const option longOptions[] = {{"var-run", required_argument, nullptr, 'r'},
                                  {"sign", required_argument, nullptr, 's'},
                                  {"pid", required_argument, nullptr, 'p'},
                                  {"alive", no_argument, &given.alive, 1},
                                  {"publish", no_argument, &given.publish, 1},
                                  {"json", no_argument, &given.json, 1},
                                  {"help", no_argument, &given.help, 1},
                                  {"version", no_argument, &given.version, 1},
                                  {nullptr, 0, nullptr, 0}};
    const std::map<int, std::optional<std::string>*> texts = {{'c', &given.configurationFile},
                                                              {'l', &given.logFile},
                                                              {'r', &given.runDirectory},
                                                              {'s', &given.signedPath}};
    opterr = 0; // the caller reports the fault, as JSON if requested
    int found = 0;
    while ((found = getopt_long(argc, argv, "c:l:", longOptions, nullptr)) != -1) {
        if (const auto text = texts.find(found); text != texts.end()) {
            *text->second = optarg;
        } else if (found == 'p') {
            given.pid = parsePid(optarg);
            if (!given.pid) {
                given.fault = std::string("not a process id: ") + optarg;
            }
        } else if (found == '?') {
            given.fault = std::string("unknown option or missing value: ") + argv[optind - 1];
        }
    }
    if (given.fault.empty() && optind < argc) {
        given.fault = std::string("unexpected argument: ") + argv[optind];
    }
    return given;
}
