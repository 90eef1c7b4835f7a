#include "Diagnosis.h"

#include "checks/Checks.h"

#include <map>

namespace {

// When a check runs.
enum class On { ALWAYS, FULL_RUN, PUBLISH, SIGN };

struct Check {
    const char* name;
    On on;
    std::vector<std::string> needs; // checks that must be ok before this one makes sense
    long leastMs;                   // least time for a meaningful result
    Findings (*run)(Gateway& gateway);
};

// In the order in which a technician reads them. "alive" compares two looks at the daemon. The
// first look is taken at the start, and the checks before "alive" use the time between the two.
const Check checks[] = {
    {"configuration", On::ALWAYS, {}, 0, checkConfiguration},
    {"settings", On::FULL_RUN, {"configuration"}, 0, checkSettings},
    {"identity", On::FULL_RUN, {"configuration"}, 0, checkIdentity},
    {"log", On::FULL_RUN, {"configuration"}, 0, checkLogFile},
    {"broker", On::FULL_RUN, {"configuration"}, 7000, checkBroker},
    {"cloud", On::FULL_RUN, {"configuration"}, 0, checkCloud},
    {"clock", On::FULL_RUN, {}, 0, checkClock},
    {"signature", On::SIGN, {"identity", "cloud"}, 3000, checkSignature},
    {"port", On::FULL_RUN, {"configuration"}, 0, checkPort},
    {"alive", On::ALWAYS, {}, 0, checkProcess},
    {"service", On::FULL_RUN, {}, 0, checkService},
    {"echo", On::FULL_RUN, {"broker", "alive"}, 6500, checkEcho},
    {"replies", On::PUBLISH, {"broker"}, 2000, checkReplies},
    {"traffic", On::FULL_RUN, {"configuration"}, 0, checkTraffic},
    {"errors", On::FULL_RUN, {"configuration"}, 0, checkRecentErrors},
};

bool isWanted(const Check& check, const Options& options) {
    if (options.alive != 0) {
        return check.on == On::ALWAYS;
    }
    switch (check.on) {
    case On::PUBLISH:
        return options.publish != 0;
    case On::SIGN:
        return options.signedPath.has_value();
    default:
        return true;
    }
}

class Diagnosis {
  public:
    Diagnosis(const Options& options, Report& destination)
        : report(destination)
        , gateway(options) {}

    int run() {
        for (const Check& check : checks) {
            if (isWanted(check, gateway.options)) {
                runOrSkip(check);
            }
        }
        const Options& options = gateway.options;
        const bool didMore = options.publish != 0 && options.signedPath;
        const bool offerMore = options.alive == 0 && !didMore && !gateway.replyWasSeen;
        const Outcome outcome = report.finish(gateway.fingerprint, offerMore);
        if (outcome == Outcome::BAD) {
            return 1;
        }
        // Without root a problem may be hidden from the doctor, so this result is not a success.
        if (outcome == Outcome::UNKNOWN && !gateway.isRoot) {
            return 2;
        }
        return 0;
    }

  private:
    void runOrSkip(const Check& check) {
        for (const std::string& needed : check.needs) {
            if (const auto cause = notOk.find(needed); cause != notOk.end()) {
                report.skip(check.name, cause->second);
                notOk[check.name] = cause->second;
                return;
            }
        }
        if (gateway.limitMs(check.leastMs) < check.leastMs) {
            report.skip(check.name, "time");
            notOk[check.name] = "time";
            return;
        }
        const Findings findings = check.run(gateway);
        for (const Finding& finding : findings) {
            // With --alive, the doctor reads the configuration for the check "alive" and does not
            // report it.
            const bool isSilent = gateway.options.alive != 0 && check.run == checkConfiguration;
            if (!isSilent) {
                report.add(check.name, finding);
            }
            if (finding.outcome != Outcome::OK) {
                notOk[check.name] = check.name;
            }
            if (finding.outcome == Outcome::BAD) {
                gateway.problems.insert(check.name);
            }
        }
    }

    Report& report;
    Gateway gateway;
    std::map<std::string, std::string> notOk; // by check: the check that is the cause, or "time"
};

} // namespace

int diagnose(const Options& options, Report& report) {
    return Diagnosis(options, report).run();
}
