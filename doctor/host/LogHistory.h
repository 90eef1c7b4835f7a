// The facts in the daemon's log since the last start. Pure functions, usable from any thread.
#pragma once

#include <ctime>
#include <map>
#include <string>

struct LogHistory {
    // Kinds of records that report a fault.
    enum class Kind {
        LOCKED,           // after this record the daemon no longer relays
        EXCEPTION,        // a datagram ended in an exception
        INVALID_DATAGRAM, // a datagram was invalid
        DROPPED,          // the circuit breaker was open
        TRANSFER_FAILED,  // a request got no complete response
        STATUS_REFUSED,   // a request got a status other than 200 and 201
        LINK_REBUILT,     // the connection to the broker was recreated
        BROKER_REFUSED,   // the broker rejected the connection
        PORT_IN_USE,      // the upstream port could not be opened
        OTHER             // any other record of the level ERROR
    };
    struct Event {
        int count = 0;
        std::time_t last = 0;
        std::string text; // the last record, without its time and level
    };

    std::map<Kind, Event> events;
    std::string lastError;
    std::time_t firstAt = 0;        // the first record of the text
    std::time_t startedAt = 0;      // 0: the start is not in the text
    std::time_t lastSuccessAt = 0;  // of a request; seen at the log level TRACE only
    std::time_t openUntil = 0;      // of the circuit breaker; 0: it was not open
    std::time_t endedUnaskedAt = 0; // the last record of a previous run without a stop record
    int rebuilds = 0;       // of the connection to the broker, also the first one, which is normal
    int recentStarts = 0;   // starts within 3 minutes that did not follow a stop
    bool isStopped = false; // the last run ended with a stop record

    // The last success of a request, if no request has failed since; else 0.
    std::time_t currentSuccessAt() const;
};

// `text` is the end of a log file; `now` is the time of this machine. A start record that is later
// than `runningSince`, the start of the running daemon, is ignored: a datagram with a line feed can
// forge one. `runningSince` is 0 when no daemon runs.
LogHistory readLogHistory(const std::string& text, std::time_t now, std::time_t runningSince = 0);
