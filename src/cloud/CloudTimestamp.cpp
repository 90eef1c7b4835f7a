#include "cloud/CloudTimestamp.h"

#include <array>
#include <cstdio>
#include <ctime>

void captureUtcTimestamp(CloudTimestamp& out) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm fields{};
    gmtime_r(&now.tv_sec, &fields);
    out.year = fields.tm_year + 1900;
    out.month = fields.tm_mon + 1;
    out.day = fields.tm_mday;
    out.hour = fields.tm_hour;
    out.minute = fields.tm_min;
    out.second = fields.tm_sec;
    out.microsecond = static_cast<std::int32_t>(now.tv_nsec / 1000);
    out.valid = true;
}

std::string formatTimestamp(const CloudTimestamp& t) {
    const auto number = [](std::int32_t field) { return static_cast<unsigned>(field); };
    std::array<char, 80> text{};
    std::snprintf(text.data(), text.size(), "%02u-%02u-%02uT%02u:%02u:%02u.%06uZ", number(t.year),
                  number(t.month), number(t.day), number(t.hour), number(t.minute),
                  number(t.second), number(t.microsecond));
    return text.data();
}
