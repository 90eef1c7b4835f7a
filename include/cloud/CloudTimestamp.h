// The time of a request to the cloud. It is sent in a header and is part of the signed text. UTC.
// Usable from any thread.
#pragma once

#include <cstdint>
#include <string>

// Zero-initialise before capturing.
struct CloudTimestamp {
    std::int32_t year;
    std::int32_t month;       // 1 to 12
    std::int32_t day;         // 1 to 31
    std::int32_t hour;        // 0 to 23
    std::int32_t minute;      // 0 to 59
    std::int32_t second;      // 0 to 60
    std::int32_t microsecond; // 0 to 999999
    bool valid;               // true once captured
};

// Fills `out` from the realtime clock; microseconds are truncated.
void captureUtcTimestamp(CloudTimestamp& out);

// The text form, for example 2026-11-13T04:25:47.123456Z.
std::string formatTimestamp(const CloudTimestamp& t);
