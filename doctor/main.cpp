// lora-veyra-doctor finds the faults of this gateway in one command. It uses the daemon's own
// functions, so that it interprets every value as the daemon does; it changes nothing and does not
// disturb a running daemon.
#include "Diagnosis.h"
#include "VeyraServer/Version.h"

#include <ZEP/Logger.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <curl/curl.h>
#include <fcntl.h>
#include <mosquitto.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {

constexpr unsigned longestRunS = 25;
constexpr int couldNotWork = 2;

std::string lateText; // set before the handler is installed, which prints it
int lateOutput = STDERR_FILENO;

// A call that blocks in the kernel, such as a read from a dead network drive, must not block the
// doctor. With --json no line was printed before, so the output is still one object.
void limitRun(bool asJson) {
    lateText = Report::failure(asJson, "the doctor did not finish within 25 s");
    if (asJson) {
        lateOutput = STDOUT_FILENO;
    }
    std::signal(SIGALRM, [](int) {
        const ssize_t ignored = write(lateOutput, lateText.data(), lateText.size());
        static_cast<void>(ignored);
        _exit(couldNotWork);
    });
    alarm(longestRunS);
}

void printFailure(bool asJson, const std::string& fault) {
    std::fputs(Report::failure(asJson, fault).c_str(), asJson ? stdout : stderr);
}

// A peer that sends without end, or a compressed response that grows without end, must not take the
// memory of the gateway. Sanitizers reserve more than any limit.
void limitMemory() {
#ifndef VEYRA_SANITIZED
    constexpr rlim_t mostBytes = 512 << 20;
    const rlimit limit{mostBytes, mostBytes};
    setrlimit(RLIMIT_AS, &limit);
#endif
}

// Without standard descriptors, the report would be written into the next file that is opened.
void openStandardDescriptors() {
    while (true) {
        const int descriptor = open("/dev/null", O_RDWR);
        if (descriptor < 0 || descriptor > STDERR_FILENO) {
            close(descriptor);
            return;
        }
    }
}

int run(const Options& options) {
    try {
        const bool inColour = isatty(STDOUT_FILENO) != 0 && std::getenv("NO_COLOR") == nullptr;
        Report report(options.json != 0, inColour);
        return diagnose(options, report);
    } catch (const std::exception& error) {
        printFailure(options.json != 0, error.what());
        return couldNotWork;
    }
}

} // namespace

int main(int argc, char* argv[]) {
    openStandardDescriptors();
    const Options options = parseOptions(argc, argv);
    if (!options.fault.empty()) {
        printFailure(options.json != 0, options.fault);
        if (options.json == 0) {
            std::fputs(usageText, stderr);
        }
        return couldNotWork;
    }
    if (options.help != 0) {
        std::fputs(usageText, stdout);
        return 0;
    }
    if (options.version != 0) {
        std::printf("lora-veyra-doctor %s\n", programVersion);
        return 0;
    }
    limitRun(options.json != 0);
    limitMemory();
    std::signal(SIGPIPE, SIG_IGN);
    ZEP::Logger::setPrintLevel(0, false); // the daemon's functions must not log here
    curl_global_init(CURL_GLOBAL_DEFAULT);
    mosquitto_lib_init();
    return run(options);
}
