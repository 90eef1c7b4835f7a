#include "host/LogHistory.h"

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <sstream>

namespace {

using Kind = LogHistory::Kind;

constexpr int loopSeconds = 180; // systemd restarts the service every 30 s

struct Record {
    std::time_t time;
    std::string level;
    std::string text;
};

constexpr struct {
    const char* text;
    Kind kind;
} signs[] = {
    {"Exception caught during CURL call", Kind::LOCKED},
    {"EXCEPTION: Failed to parse JSON", Kind::EXCEPTION},
    {"Failed to parse JSON", Kind::INVALID_DATAGRAM},
    {"Invalid JSON", Kind::INVALID_DATAGRAM},
    {"Expected JSON object", Kind::INVALID_DATAGRAM},
    {"Circuit is broken", Kind::DROPPED},
    {"CURL call to Server failed", Kind::TRANSFER_FAILED},
    {" failed CODE:", Kind::STATUS_REFUSED},
    {"MQTT disconnected", Kind::LINK_REBUILT},
    {"Impossible to connect", Kind::BROKER_REFUSED},
    {"Unable to bind socket", Kind::PORT_IN_USE},
};

// Empty when the line continues a record, as the lines of the logged configuration do.
std::optional<Record> parseRecord(std::string line) {
    line.erase(0, line.find_first_not_of('\0')); // a power cut can leave zeros in front
    std::tm utc{};
    const char* const end = strptime(line.c_str(), "%Y-%m-%dT%H:%M:%S", &utc);
    if (end == nullptr || *end != '.') {
        return std::nullopt;
    }
    std::istringstream rest(end);
    Record record{timegm(&utc), {}, {}};
    std::string fraction;
    rest >> fraction >> record.level;
    rest.ignore(1);
    std::getline(rest, record.text);
    return record;
}

unsigned long long numberAfter(const std::string& text, const std::string& name) {
    const auto place = text.rfind(name);
    if (place == std::string::npos) {
        return 0;
    }
    return std::strtoull(text.c_str() + place + name.size(), nullptr, 10);
}

bool startsWith(const std::string& text, const std::string& start) {
    return text.rfind(start, 0) == 0;
}

// A broker that takes longer than 100 ms to accept the first connection is normal: the link is then
// recreated once, right after the worker has started.
bool isFirstConnection(const LogHistory& history, const Record& record) {
    constexpr unsigned long long startMs = 1000;
    return history.rebuilds == 0 && record.text.find("Connected: 0") != std::string::npos &&
           numberAfter(record.text, "Keepalive: ") < startMs;
}

// Whether the text of a record begins with the text of `sign`. In some records a method or the
// place of an error precedes that text.
bool hasSign(const std::string& text, const char* sign, Kind kind) {
    const bool isInside =
        kind == Kind::STATUS_REFUSED || kind == Kind::PORT_IN_USE || kind == Kind::BROKER_REFUSED;
    const auto place = text.find(sign);
    return place == 0 || (isInside && place != std::string::npos);
}

std::optional<Kind> kindOf(const LogHistory& history, const Record& record) {
    if (record.level == "TRACE" || record.level == "INFO") {
        // These records quote datagrams and responses, so they can contain any text.
        return std::nullopt;
    }
    for (const auto& [text, kind] : signs) {
        if (!hasSign(record.text, text, kind)) {
            continue;
        }
        if (kind == Kind::LINK_REBUILT && isFirstConnection(history, record)) {
            return std::nullopt;
        }
        return kind;
    }
    if (record.level == "ERROR" && !startsWith(record.text, "Curl call failed")) {
        return Kind::OTHER;
    }
    return std::nullopt;
}

// Forgets the previous run, except for how it ended.
void beginRun(LogHistory& history, const Record& record, std::time_t previousAt, std::time_t now) {
    const bool isUnasked = previousAt != 0 && !history.isStopped;
    const bool isRecent = now - record.time < loopSeconds;
    const int starts = history.recentStarts + static_cast<int>(isRecent && !history.isStopped);
    history = LogHistory();
    history.startedAt = record.time;
    history.recentStarts = starts;
    if (isUnasked) {
        history.endedUnaskedAt = previousAt;
    }
}

void addRecord(LogHistory& history, const Record& record) {
    if (record.level == "INFO" && startsWith(record.text, "Shutdown signal received")) {
        history.isStopped = true;
    }
    const bool isResponse = record.level == "TRACE" && startsWith(record.text, "Curl Response");
    if (isResponse && record.text.find("\"result\":null") == std::string::npos) {
        history.lastSuccessAt = record.time;
    }
    const auto kind = kindOf(history, record);
    if (startsWith(record.text, "MQTT disconnected")) {
        ++history.rebuilds;
    }
    if (!kind) {
        return;
    }
    if (*kind == Kind::DROPPED) {
        // The record may contain a number that wrapped around.
        constexpr unsigned long long longestMs = 3600000;
        const auto backoffMs = std::min(numberAfter(record.text, "backoff "), longestMs);
        history.openUntil = record.time + static_cast<std::time_t>(backoffMs / 1000);
    }
    LogHistory::Event& event = history.events[*kind];
    event = {event.count + 1, record.time, record.text};
    if (record.level == "ERROR") {
        history.lastError = record.text;
    }
}

constexpr std::time_t startToleranceS = 1; // between the start of the process and its first record

bool isStart(const Record& record, std::time_t runningSince) {
    return record.level == "INFO" && startsWith(record.text, "Lora VEYRA Server started") &&
           (runningSince == 0 || record.time <= runningSince + startToleranceS);
}

// The state while the records are read in their order.
struct Reading {
    std::time_t now;
    std::time_t runningSince; // 0: no daemon runs
    LogHistory history;
    LogHistory unrecorded; // of the records since `runningSince`, in case the start is not recorded
    std::time_t firstAt = 0;
    std::time_t previousAt = 0;
    std::time_t latestAt = 0;
};

bool startWasSeen(const Reading& reading) {
    return reading.history.startedAt >= reading.runningSince - startToleranceS;
}

// Whether the records so far belong to the running daemon. If they do, any further start record is
// forged.
bool isCurrent(const Reading& reading) {
    return reading.runningSince != 0 &&
           (startWasSeen(reading) || reading.latestAt > reading.runningSince + startToleranceS);
}

void takeRecord(Reading& reading, const Record& record) {
    if (!isCurrent(reading) && isStart(record, reading.runningSince)) {
        beginRun(reading.history, record, reading.previousAt, reading.now);
    }
    addRecord(reading.history, record);
    if (record.time >= reading.runningSince) {
        addRecord(reading.unrecorded, record);
    }
    if (reading.firstAt == 0) {
        reading.firstAt = record.time;
    }
    reading.previousAt = record.time;
    reading.latestAt = std::max(reading.latestAt, record.time);
}

} // namespace

std::time_t LogHistory::currentSuccessAt() const {
    for (const Kind kind : {Kind::TRANSFER_FAILED, Kind::STATUS_REFUSED, Kind::DROPPED}) {
        const auto event = events.find(kind);
        if (event != events.end() && event->second.last >= lastSuccessAt) {
            return 0;
        }
    }
    return lastSuccessAt;
}

LogHistory readLogHistory(const std::string& text, std::time_t now, std::time_t runningSince) {
    Reading reading{now, runningSince, {}, {}};
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        const auto record = parseRecord(line);
        if (record && record->time <= now) {
            takeRecord(reading, *record);
        }
    }
    // At low log levels, the start is not recorded. Records that are older than the running daemon
    // belong to a previous run.
    if (runningSince != 0 && !startWasSeen(reading)) {
        reading.history = reading.unrecorded;
        if (reading.firstAt != 0 && reading.firstAt <= runningSince) {
            reading.history.startedAt = runningSince;
        }
    }
    reading.history.firstAt = reading.firstAt;
    return reading.history;
}
