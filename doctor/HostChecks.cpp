#include "HostChecks.h"

#include "Crypto/Sha256.h"
#include "Settings.h"
#include "VeyraServer/GatewaySecret.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

constexpr const char* asRoot = "may not be seen; run the doctor as root";
constexpr const char* wedge = "Exception caught during CURL call";
constexpr const char* noFault = "requests without success";
constexpr int loopSeconds = 180; // a supervisor restarts every 30 s
constexpr int loopStarts = 4;

// Texts in records, and what they count as.
constexpr const char* signs[][2] = {
    {wedge, "aborted requests"},
    {"EXCEPTION: Failed", "datagrams that ended in an exception"},
    {"Msg exception", "exceptions of the daemon"},
    {"Circuit is broken", "datagrams dropped, circuit open"},
    {"MQTT disconnected", "rebuilds of the broker link"},
    {"Impossible to connect", "refusals of the broker"},
    {"Unable to bind socket", "failures to open the port"},
    {"MQTT must be enabled", "ends, MQTT not enabled"},
    {"CURL call to Server failed", noFault},
    {" failed CODE:", noFault},
};

bool isHexadecimal(char character) {
    return std::strchr("0123456789abcdef", character) != nullptr;
}

// What is wrong with the part of the secret that the key is, or without one the uuid.
std::vector<Finding> identityFindings(const GatewayIdentity& identity) {
    const std::string& key = identity.gatewayKey;
    const std::string& uuid = identity.uuid;
    const auto parsed = parseGatewayKey(key);
    const char* const again = "copy the key again: 32 hexadecimal digits";
    return {
        bad(!parsed, "gatewayKey: a character is not hexadecimal, the deviceId alone signs", again),
        bad(std::count_if(key.begin(), key.end(), isHexadecimal) > 32 ||
                key.find_first_of(" \t\n\v\f\r") != std::string::npos,
            "gatewayKey: more than 32 digits, or a blank in it: only its end counts", again),
        bad(!key.empty() && parsed && parsed->find_first_not_of('0') == std::string::npos,
            "gatewayKey: all zeros, the package's placeholder",
            "set the gateway's own key, or null for the device's uuid"),
        bad(key.empty() &&
                (uuid.size() != 32 || !std::all_of(uuid.begin(), uuid.end(), isHexadecimal)),
            uuid.size() < 20 ? "uuid: too short or missing, and no gatewayKey: the daemon aborts"
                             : "uuid: the secret of it is not the one that the cloud knows",
            "write it as 32 hexadecimal digits without dashes, or set network.gatewayKey"),
        bad(identity.deviceId.empty(), "deviceId: missing or no text",
            "add it to the device information: the cloud knows the secret with it")};
}

// -1 when the line is the continuation of a record.
std::time_t timeOf(const std::string& line) {
    std::tm utc{};
    const char* const end = strptime(line.c_str(), "%Y-%m-%dT%H:%M:%S", &utc);
    return end != nullptr && *end == '.' ? timegm(&utc) : std::time_t{-1};
}

void addRecord(Tail& tail, const std::string& line, std::time_t time, std::time_t now) {
    if (line.find("Lora VEYRA Server started") != std::string::npos) {
        const bool lately = now >= time && now - time < loopSeconds;
        const int starts = tail.startsLately + (lately && !tail.stopped ? 1 : 0);
        tail = Tail();
        tail.startsLately = starts;
    }
    tail.stopped = tail.stopped || line.find("Shutdown signal received") != std::string::npos;
    for (const auto& [text, what] : signs) {
        if (line.find(text) != std::string::npos) {
            tail.events[what] = {tail.events[what].count + 1, time};
            tail.wedged = tail.wedged || text == wedge;
        }
    }
    if (const auto error = line.find(" ERROR "); error < 32) {
        tail.lastError = maskedUrl(line.substr(error + 7, 120));
    }
}

std::string describe(const Look& look) {
    return look.pid == 0
               ? "process lora-veyra-server"
               : "process " + std::to_string(look.pid) + ", " + std::to_string(look.threads) +
                     " threads" +
                     (look.seen ? ", " + std::to_string(look.waitingBytes) + " bytes wait" : "") +
                     (look.waitsIn.size() < 2 ? "" : ", main waits in " + look.waitsIn);
}

} // namespace

std::string fingerprint(const Json::Value& device, const Json::Value& network) {
    try {
        const std::string secret = buildGatewaySecret(device, network);
        return sha256Hex(secret.data(), secret.data() + secret.size()).substr(0, 8);
    } catch (const std::exception&) {
        return {};
    }
}

Verdict judgeIdentity(const IdentityFacts& facts) {
    const Json::Value key = facts.network.isObject() ? facts.network["gatewayKey"] : Json::Value();
    const GatewayIdentity identity = readIdentity(facts.device, facts.network);
    std::vector<Finding> findings{
        unknown(facts.error == EACCES && !facts.isRoot, asRoot),
        bad(facts.error != 0, std::strerror(facts.error),
            "the gateway's firmware makes it; the service's user must be able to read it"),
        bad(!facts.device.isObject(), "not one whole JSON object: counts as missing",
            "mend it: {\"uuid\": \"...\", \"deviceId\": \"...\"}"),
        bad(!key.isNull() && !key.isString(),
            "gatewayKey: no text, the device's uuid takes its place", "write it between quotes")};
    for (Finding& finding : identityFindings(identity)) {
        findings.push_back(std::move(finding));
    }
    const std::string print = fingerprint(facts.device, facts.network);
    return judge(facts.path + ", secret made of " +
                     (identity.gatewayKey.empty() ? "uuid" : "network.gatewayKey") +
                     " and deviceId" + (print.empty() ? "" : ", fingerprint " + print),
                 findings);
}

Verdict judgeLog(const LogFacts& facts) {
    constexpr std::uint64_t minFreeBytes = 65536;
    if (facts.toSyslog) {
        return judge("/dev/log",
                     {bad(!facts.syslogListens, "log.syslog is true and no syslog daemon listens",
                          "install one, or set log.syslog to false")});
    }
    return judge(facts.path + ", " + std::to_string(facts.freeBytes >> 20) + " MiB free",
                 {unknown(facts.error == EACCES && !facts.isRoot, asRoot),
                  bad(facts.error == ENOENT, std::strerror(facts.error),
                      "make the folder: install -d -o lora-veyra -g lora-veyra"),
                  bad(facts.error != 0, std::strerror(facts.error),
                      "let the service's user write there, or mend -l; then restart the service"),
                  bad(facts.freeBytes < minFreeBytes, "the disk is full: records are lost",
                      "make room there")});
}

Verdict judgePort(const PortFacts& facts) {
    const bool missing = !facts.taken && facts.daemon != 0;
    const bool its = facts.taken && facts.daemon != 0 && facts.owner == facts.daemon;
    return judge(
        "127.0.0.1:" + std::to_string(facts.port) + " (UDP)" +
            (its ? ", the daemon's, which lost " + std::to_string(facts.drops) + " datagrams"
             : facts.taken ? ""
                           : ", nobody's"),
        {unknown(facts.taken && facts.owner == 0, "who has it " + std::string(asRoot)),
         bad(facts.taken && facts.owner != facts.daemon,
             "taken by " + facts.ownerName + ", process " + std::to_string(facts.owner),
             "stop that program, or change udp.veyraPort and the network server's setting"),
         unknown(missing && !facts.daemonSeen, "what the daemon has " + std::string(asRoot)),
         bad(missing && facts.elsewhere != 0,
             "the daemon listens on " + std::to_string(facts.elsewhere) +
                 ": the configuration has changed since its start",
             "restart it: systemctl restart lora-veyra-server"),
         bad(missing, "the daemon does not have it",
             "wait if it still starts (two minutes when the broker is silent), else see the log")});
}

Tail readTail(const std::string& text, std::time_t now) {
    Tail tail;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (const std::time_t time = timeOf(line); time != -1) {
            addRecord(tail, line, time, now);
        }
    }
    return tail;
}

Verdict judgeTail(const std::string& path, const Tail& tail, std::time_t now) {
    constexpr int latelySeconds = 600;
    std::string text;
    bool lately = false;
    for (const auto& [what, event] : tail.events) {
        text += (text.empty() ? "" : "; ") + std::to_string(event.count) + " " + what +
                ", last at " + utcText(event.last);
        lately =
            lately || (what != noFault && now >= event.last && now - event.last < latelySeconds);
    }
    return judge(path + ", since the last start: " + (text.empty() ? "no fault" : text),
                 {bad(lately, "the last of it less than 10 minutes ago",
                      "mend what is bad above; see \"Log records\" in the handbook")});
}

// Its main thread waits ten times a second when idle, once a second during a request, and not at
// all when it waits for its lock.
Verdict judgeAlive(const Look& first, const Look& second, const Tail& tail) {
    const std::string pid = std::to_string(second.pid);
    const std::string why = tail.lastError.empty() ? "its log has no error: it aborted or was "
                                                     "stopped, see journalctl -u lora-veyra-server"
                                                   : "its last error: " + tail.lastError;
    const std::uint64_t turns = second.switches - first.switches;
    const bool slow = turns * 1000 < (second.atMs - first.atMs) * 5;
    return judge(
        describe(second),
        {bad(tail.startsLately >= loopStarts,
             std::to_string(tail.startsLately) + " starts in 3 minutes: it ends again and again; " +
                 why,
             "mend what is bad above"),
         unknown(second.pid == 0 && second.mayBeHidden, "a process " + std::string(asRoot)),
         bad(second.pid == 0, "it does not run; " + why,
             "mend what is bad above, then systemctl start lora-veyra-server"),
         bad(first.pid != second.pid, "it has just been started anew; " + why, "ask again soon"),
         bad(second.seen && !second.listens, "it does not have its port", "see port"),
         bad(second.isStopped, "it is stopped by a signal", "kill -CONT " + pid),
         bad(turns == 0 && second.threads < 2, "it still starts: the broker is silent",
             "see broker"),
         bad(turns == 0 || (slow && tail.wedged), "it is wedged on its lock and relays no more",
             "kill -KILL " + pid +
                 " and start it again; the handbook's \"It relays no more\" "
                 "names the cause"),
         bad(slow, "it waits for a cloud that does not answer, or slowly",
             "see cloud; kill -KILL " + pid + " ends the request, whose time has no limit"),
         unknown(!second.seen, "it works, its connections could not be looked at: see "
                               "configuration, or run the doctor as root"),
         bad(!first.linked && !second.linked, "it has no connection to the broker",
             "see broker; it makes the link anew every 9 s"),
         bad(std::max(first.threads, second.threads) < 3, "a thread is missing", "restart it")});
}

std::string utcText(std::time_t time) {
    char text[32];
    std::tm utc{};
    gmtime_r(&time, &utc);
    return std::string(text, std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%SZ", &utc));
}
