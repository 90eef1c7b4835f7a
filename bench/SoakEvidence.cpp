#include "SoakEvidence.h"

#include "SoakPeers.h"

#include <json/json.h>

#include <algorithm>
#include <ctime>
#include <fstream>
#include <memory>
#include <unordered_set>

namespace {

// Seconds of a text such as 2026-11-21T04:25:47.123456Z.
double secondsOf(const std::string& text) {
    tm fields{};
    const char* const rest = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &fields);
    return rest == nullptr ? 0 : static_cast<double>(timegm(&fields)) + std::strtod(rest, nullptr);
}

bool has(const std::string& line, const char* part) {
    return line.find(part) != std::string::npos;
}

// Returns the times at which the daemon found its link broken.
std::vector<double> readLog(SoakCounts& counts, const std::string& file) {
    std::vector<double> broken;
    std::ifstream in(file);
    for (std::string line; std::getline(in, line);) {
        if (has(line, " DEBUG MQTT disconnected ")) {
            broken.push_back(secondsOf(line));
        } else if (has(line, " WARNING Circuit is broken")) {
            ++counts.refusedByBreaker;
        } else if (has(line, " ERROR Failed to parse JSON ")) {
            ++counts.rejected;
        } else if (has(line, " ERROR Curl call failed ")) {
            ++counts.failed;
        } else if (has(line, "Z ERROR ") && !has(line, " ERROR CURL call to Server failed - ") &&
                   !has(line, " ERROR POST failed CODE:")) {
            ++counts.otherErrors;
        }
    }
    counts.rebuilds = broken.size();
    return broken;
}

struct Relayed {
    int id;
    double second; // when it was signed
};

Json::Value parsed(const std::string& text) {
    Json::Value value;
    const Json::CharReaderBuilder builder;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    reader->parse(text.data(), text.data() + text.size(), &value, nullptr);
    return value;
}

// Returns the requests that were answered as the daemon takes for a success.
std::vector<Relayed> readCloud(SoakCounts& counts, const std::string& file) {
    std::vector<Relayed> relayed;
    std::ifstream in(file);
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line[0] != '{') {
            continue;
        }
        const Json::Value request = parsed(line);
        counts.badSignatures += request["verdict"] == "signature valid" ? 0U : 1U;
        const int status = request["status"].asInt();
        if (status == 307) {
            continue; // comes again on the path that it was sent to
        }
        if ((status == 200 || status == 201) && request["fault"] != "cut") {
            relayed.push_back({idOfPath(request["path"].asString()),
                               secondsOf(request["headers"]["X-API-TIMESTAMP"].asString())});
        } else {
            ++counts.cloudFailed;
        }
    }
    counts.relayed = relayed.size();
    return relayed;
}

// What the client had in its hands when its link broke goes with it. The request may have taken a
// while before.
bool brokeSoonAfter(double second, const std::vector<double>& broken) {
    return std::any_of(broken.begin(), broken.end(),
                       [&](double at) { return at > second - 1 && at < second + 5; });
}

} // namespace

void countEvidence(SoakCounts& counts, const std::string& daemonLog, const std::string& cloudOutput,
                   const std::vector<int>& receivedIds) {
    const std::vector<double> broken = readLog(counts, daemonLog);
    const std::unordered_set<int> received(receivedIds.begin(), receivedIds.end());
    for (const Relayed& relayed : readCloud(counts, cloudOutput)) {
        if (received.count(relayed.id) == 0) {
            ++(brokeSoonAfter(relayed.second, broken) ? counts.lostWithLink : counts.unaccounted);
        }
    }
    counts.received = receivedIds.size();
    for (std::size_t i = 1; i < receivedIds.size(); ++i) {
        counts.outOfOrder += receivedIds[i] > receivedIds[i - 1] ? 0U : 1U;
    }
}
