// lora-veyra-doctor: what is wrong with this gateway, in one command. Linked with the daemon's own
// library, so that it judges as the daemon does; changes nothing and disturbs no running daemon.
#include "Examination.h"
#include "VeyraServer/Version.h"

#include <ZEP/Logger.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <curl/curl.h>
#include <getopt.h>
#include <map>
#include <mosquitto.h>
#include <unistd.h>

namespace {

constexpr const char* usage =
    "Usage: lora-veyra-doctor [-c FILE] [-l FILE] [--var-run DIR] [--alive] [--json]\n"
    "                         [--publish] [--sign PATH]\n"
    "  -c, -l, --var-run  as of lora-veyra-server; else those of the running one, else the "
    "package's\n"
    "  --alive            look at the daemon's process only\n"
    "  --json             one JSON object in place of the lines\n"
    "  --publish          publish an empty object on lora/veyra as well\n"
    "  --sign PATH        make one signed GET of PATH as well, such as "
    "m1/gateways/SN0042/check_in\n"
    "Exit status: 0 nothing is bad, 1 something is, 2 it could not do its work.\n";

// Nothing for arguments that it does not know.
std::optional<Options> parseOptions(int argc, char** argv) {
    Options given;
    const option longOptions[] = {
        {"var-run", required_argument, nullptr, 'r'}, {"sign", required_argument, nullptr, 's'},
        {"alive", no_argument, &given.alive, 1},      {"publish", no_argument, &given.publish, 1},
        {"json", no_argument, &given.json, 1},        {"help", no_argument, &given.help, 1},
        {"version", no_argument, &given.version, 1},  {nullptr, 0, nullptr, 0}};
    const std::map<int, std::optional<std::string>*> values = {{'c', &given.configurationFile},
                                                               {'l', &given.logFile},
                                                               {'r', &given.runDirectory},
                                                               {'s', &given.signedPath}};
    int found = 0;
    while ((found = getopt_long(argc, argv, "c:l:", longOptions, nullptr)) != -1) {
        if (found == '?') {
            return std::nullopt;
        }
        if (found != 0) {
            *values.at(found) = optarg;
        }
    }
    return optind == argc ? std::optional(given) : std::nullopt;
}

} // namespace

int main(int argc, char* argv[]) {
    const auto given = parseOptions(argc, argv);
    if (!given || given->help != 0) {
        std::fputs(usage, given ? stdout : stderr);
        return given ? 0 : 2;
    }
    if (given->version != 0) {
        std::printf("lora-veyra-doctor %s\n", programVersion);
        return 0;
    }
    std::signal(SIGPIPE, SIG_IGN);
    ZEP::Logger::setPrintLevel(0, false); // the daemon's functions must not log here
    curl_global_init(CURL_GLOBAL_DEFAULT);
    mosquitto_lib_init();
    try {
        Report report(given->json != 0,
                      isatty(STDOUT_FILENO) != 0 && std::getenv("NO_COLOR") == nullptr);
        return examine(*given, report);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "lora-veyra-doctor: %s\n", error.what());
        return 2;
    }
}
