#include "Examination.h"

#include "HostChecks.h"
#include "HostFacts.h"
#include "PeerFacts.h"
#include "Settings.h"
#include "VeyraServer/EffectiveSettings.h"
#include "VeyraServer/GatewaySecret.h"
#include "common/Clock.h"

#include <cerrno>
#include <filesystem>
#include <unistd.h>

namespace {

// Whether it keeps the daemon from opening its port on 127.0.0.1.
bool isInTheWay(const Socket& socket, int port) {
    return !socket.isTcp && socket.port == port &&
           (socket.address.find_first_not_of('0') == std::string::npos ||
            socket.address == "0100007F" || socket.address == "0000000000000000FFFF00000100007F");
}

class Examination {
  public:
    Examination(const Options& given, Report& destination)
        : options(given)
        , report(destination) {
        first = look();
        const std::vector<Daemon> daemons = findDaemons();
        const CommandLine its =
            daemons.empty() ? CommandLine{"/etc/lora-veyra-server.conf",
                                          "/var/log/lora-veyra-server/lora-veyra-server.log"}
                            : daemons.front().commandLine;
        configurationFile = options.configurationFile.value_or(its.configurationFile);
        logFile = std::filesystem::absolute(options.logFile.value_or(*its.logFile));
        runDirectory = options.runDirectory.value_or(its.runDirectory);
        takeEnvironmentOf(first.pid);
    }

    int examine() {
        const bool readable = checkConfiguration();
        if (!options.alive && root.isObject()) {
            checkFiles();
            checkPort();
            checkCloud();
            checkBroker();
        } else if (!options.alive) {
            skip("the rest", "see configuration");
        }
        checkLife();
        if (!options.alive) {
            checkTail();
        }
        const Outcome worst =
            report.finish(identityIsRight ? fingerprint(device, root["network"]) : std::string());
        const bool blind = worst == Outcome::UNKNOWN && (options.alive != 0 || !readable);
        return worst == Outcome::BAD ? 1 : blind ? 2 : 0;
    }

  private:
    void skip(const char* check, const char* reason) {
        report.add(check, {Outcome::UNKNOWN, "not tried", reason, {}});
    }

    // Returns whether it could be looked at.
    bool checkConfiguration() {
        ConfigurationFacts facts{configurationFile, isRoot, 0, {}};
        {
            const AsUserOf service(first.pid);
            facts.error = readText(facts.path, facts.text);
        }
        for (const Verdict& verdict : judgeConfiguration(facts, root)) {
            if (!options.alive) {
                report.add("configuration", verdict);
            }
        }
        first = look();
        return !(facts.error == EACCES && !isRoot);
    }

    void checkFiles() {
        const AsUserOf service(first.pid);
        std::string text;
        const std::string path = runDirectory + "/config/device_info.json";
        device = readDeviceInformation(runDirectory);
        const Verdict identity =
            judgeIdentity({path, isRoot, readText(path, text), device, root["network"]});
        identityIsRight = identity.outcome == Outcome::OK;
        report.add("identity", identity);
        const std::string view = viewOf(first.pid, logFile);
        report.add("log", judgeLog({logFile, isRoot, mayWrite(view), freeBytes(view), toSyslog(),
                                    syslogListens()}));
    }

    void checkPort() {
        PortFacts facts;
        facts.port = effectivePort(root);
        facts.daemon = first.pid;
        facts.daemonSeen = first.seen;
        for (const Socket& socket : readSockets()) {
            if (isInTheWay(socket, facts.port) && (!facts.taken || socket.owner == first.pid)) {
                facts.taken = true;
                facts.owner = socket.owner;
                facts.ownerName = processFile(socket.owner, "comm");
                facts.drops = socket.drops;
            } else if (socket.owner == first.pid && first.pid != 0 && !socket.isTcp &&
                       socket.remotePort == 0) {
                facts.elsewhere = socket.port;
            }
        }
        report.add("port", judgePort(facts));
    }

    void checkCloud() {
        const AsUserOf service(first.pid); // a packet filter may look at the user
        const std::string url = root["network"]["veyraServer"].asString();
        const CloudFacts facts = askCloud(url);
        const bool answers = report.add("cloud", judgeCloud(facts));
        report.add("clock", judgeClock(facts, std::time(nullptr)));
        if (options.signedPath && answers && identityIsRight) {
            const long status =
                askSigned(url, *options.signedPath, buildGatewaySecret(device, root["network"]));
            report.add("signature", judgeSignature(*options.signedPath, status,
                                                   fingerprint(device, root["network"])));
        } else if (options.signedPath) {
            skip("signature", "see identity and cloud");
        }
    }

    void checkBroker() {
        const AsUserOf service(first.pid);
        const auto ask = [this](BrokerTask task) {
            return askBroker(brokerAddress(root["mqtt"]), brokerCredentials(root["mqtt"]), task);
        };
        const Verdict broker = judgeBroker(ask(BrokerTask::CONNECT));
        report.add("broker", broker);
        if (broker.outcome != Outcome::OK) {
            skip("echo", "see broker");
        } else if (first.pid == 0) {
            skip("echo", "no daemon runs");
        } else {
            BrokerFacts facts = ask(BrokerTask::LISTEN);
            facts.linked = first.linked || !first.seen;
            report.add("echo", judgeEcho(facts));
        }
        if (options.publish && broker.outcome != Outcome::OK) {
            skip("replies", "see broker");
        } else if (options.publish) {
            report.add("replies", judgeReplies(ask(BrokerTask::PUBLISH)));
        }
    }

    // What looks stuck is looked at for longer, as long as the whole stays below 25 s: it may be a
    // request in progress.
    void checkLife() {
        constexpr std::uint64_t shortMs = 2000;
        constexpr std::uint64_t longMs = 10000;
        constexpr std::uint64_t wholeMs = 24000;
        const Look before = look();
        for (;;) {
            sleepMillis(500);
            const Look second = look();
            const std::uint64_t passedMs = second.atMs - before.atMs;
            const Verdict verdict = judgeAlive(before, second, tail());
            if (second.pid == 0 || passedMs >= longMs || second.atMs - startedMs >= wholeMs ||
                (passedMs >= shortMs && verdict.outcome != Outcome::BAD)) {
                report.add("alive", verdict);
                return;
            }
        }
    }

    void checkTail() {
        std::string text;
        if (toSyslog() || readText(logFile, text) != 0) {
            skip("tail", toSyslog() ? "see journalctl -t lora-veyra-server" : "see log");
        } else {
            report.add("tail", judgeTail(logFile, tail(), std::time(nullptr)));
        }
    }

    // At the daemon that was seen first, else at any.
    Look look() const {
        constexpr unsigned established = 1;
        Look look;
        look.atMs = monotonicMillis();
        for (const Daemon& daemon : findDaemons()) {
            look.pid = look.pid == 0 || daemon.pid == first.pid ? daemon.pid : look.pid;
        }
        look.mayBeHidden = !isRoot && processFile(1, "cmdline").empty();
        look.isStopped = processFile(look.pid, "status").find("State:\tT") != std::string::npos;
        look.threads = statusOf(look.pid, "Threads");
        look.switches = statusOf(look.pid, "voluntary_ctxt_switches");
        look.waitsIn = processFile(look.pid, "wchan");
        look.seen = root.isObject() && maySeeSockets(look.pid);
        const int broker = look.seen ? brokerAddress(root["mqtt"]).port : 0;
        for (const Socket& socket : look.seen ? readSockets() : std::vector<Socket>()) {
            if (socket.owner == look.pid && isInTheWay(socket, effectivePort(root))) {
                look.waitingBytes = socket.waitingBytes;
                look.listens = true;
            }
            look.linked =
                look.linked || (socket.owner == look.pid && socket.isTcp &&
                                socket.state == established && socket.remotePort == broker);
        }
        return look;
    }

    bool toSyslog() const { return root.isObject() && root["log"]["syslog"].asBool(); }

    Tail tail() const {
        std::string text;
        if (!toSyslog()) {
            readText(logFile, text);
        }
        return readTail(text, std::time(nullptr));
    }

    const Options& options;
    Report& report;
    Json::Value root; // null without a usable configuration
    Json::Value device;
    bool identityIsRight = false;
    std::string configurationFile, logFile, runDirectory;
    Look first{}; // at the daemon
    const bool isRoot = getuid() == 0;
    const std::uint64_t startedMs = monotonicMillis();
};

} // namespace

int examine(const Options& options, Report& report) {
    return Examination(options, report).examine();
}
