#include "LogRecord.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace ZEP::Logger {

namespace {

struct CivilDate {
    int year;
    unsigned month;
    unsigned day;
};

// Converts days since 1970-01-01 to a date of the Gregorian calendar. The C library's functions
// lock the time zone, and an interrupted thread may hold that lock.
CivilDate civilDate(long long days) {
    const long long sinceMarch0000 = days + 719468;
    const long long era = sinceMarch0000 / 146097;
    const auto dayOfEra = static_cast<unsigned>(sinceMarch0000 - era * 146097);
    const unsigned yearOfEra =
        (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const unsigned dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const unsigned marchMonth = (5 * dayOfYear + 2) / 153;
    const unsigned day = dayOfYear - (153 * marchMonth + 2) / 5 + 1;
    const unsigned month = marchMonth < 10 ? marchMonth + 3 : marchMonth - 9;
    const auto year = static_cast<int>(era * 400 + yearOfEra) + (month <= 2 ? 1 : 0);
    return {year, month, day};
}

int composePrefix(char* out, std::size_t size, const timespec& now, const char* label) {
    const long long seconds = now.tv_sec;
    const CivilDate date = civilDate(seconds / 86400);
    const auto secondOfDay = static_cast<unsigned>(seconds % 86400);
    return std::snprintf(out, size, "%04d-%02u-%02uT%02u:%02u:%02u.%03uZ %.16s ", date.year,
                         date.month, date.day, secondOfDay / 3600, secondOfDay / 60 % 60,
                         secondOfDay % 60, static_cast<unsigned>(now.tv_nsec / 1000000), label);
}

} // namespace

LogRecord::LogRecord(const timespec& now, const char* label, const char* format,
                     va_list arguments) {
    messageStart = static_cast<std::size_t>(composePrefix(text, sizeof shortText, now, label));
    composeMessage(format, arguments);
    text[length++] = '\n';
}

LogRecord::~LogRecord() {
    if (text != shortText) {
        std::free(text);
    }
}

void LogRecord::composeMessage(const char* format, va_list arguments) {
    va_list again;
    va_copy(again, arguments);
    const std::size_t room = sizeof shortText - messageStart - 1;
    const int wanted = std::vsnprintf(text + messageStart, room, format, arguments);
    std::size_t messageSize = static_cast<std::size_t>(std::max(wanted, 0));
    if (messageSize >= room) {
        const std::size_t size = messageStart + messageSize + 2;
        if (auto* longText = static_cast<char*>(std::malloc(size))) {
            std::memcpy(longText, text, messageStart);
            text = longText;
            std::vsnprintf(text + messageStart, messageSize + 1, format, again);
        } else {
            messageSize = room - 1; // no memory: print the start of the message
        }
    }
    va_end(again);
    length = messageStart + messageSize;
}

} // namespace ZEP::Logger
