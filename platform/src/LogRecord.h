// The text of one log record. Composing it takes no lock, and needs no allocation if the record is
// short. Lives on the stack of the thread or signal handler that logs. This stack may be small.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <ctime>

namespace ZEP::Logger {

class LogRecord {
  public:
    // Composes the record. Consumes `arguments`.
    LogRecord(const timespec& now, const char* label, const char* format, va_list arguments)
        __attribute__((format(printf, 4, 0)));
    ~LogRecord();
    LogRecord(const LogRecord&) = delete;
    LogRecord& operator=(const LogRecord&) = delete;

    // Time, label, message and line feed.
    const char* line() const { return text; }
    std::size_t lineLength() const { return length; }
    // The message only, without the line feed.
    const char* message() const { return text + messageStart; }
    std::size_t messageLength() const { return length - messageStart - 1; }

  private:
    void composeMessage(const char* format, va_list arguments)
        __attribute__((format(printf, 2, 0)));

    char shortText[512];
    char* text = shortText;
    std::size_t messageStart = 0;
    std::size_t length = 0;
};

} // namespace ZEP::Logger
