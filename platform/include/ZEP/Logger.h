// The gateway's logger. Each call prints one record to the console, a file or syslog.
//
// Any thread and any signal handler may log. A record is composed without a lock, and without an
// allocation if it fits in a short line. One write sends it to each destination. Therefore a record
// from a signal handler cannot deadlock with an interrupted record or mix with it. errno is kept.
// setup and setPrintLevel must be called before other threads run. The logger owns its descriptors
// and does not close them at exit, because detached threads log until the end of the process.
#pragma once

#include <atomic>

namespace ZEP::Logger {

// The levels, and the label in the records of each level.
struct PrintLevel {
    static constexpr int ERROR_LEVEL = 10;
    static constexpr int WARNING_LEVEL = 20;
    static constexpr int INFO_LEVEL = 30;
    static constexpr int DEBUG_LEVEL = 40;
    static constexpr int TRACE_LEVEL = 50;

    static constexpr const char* ERROR_LABEL = "ERROR";
    static constexpr const char* WARNING_LABEL = "WARNING";
    static constexpr const char* INFO_LABEL = "INFO";
    static constexpr const char* DEBUG_LABEL = "DEBUG";
    static constexpr const char* TRACE_LABEL = "TRACE";
};

// The destinations of records. Before setup is called, records go to standard error. The console is
// standard output.
enum PrintMode {
    CONSOLE_MODE = 1,
    FILE_MODE = 2,
    SYSLOG_MODE = 3,
    CONSOLE_AND_FILE_MODE = 4,
    CONSOLE_AND_SYSLOG_MODE = 5,
};

// Chooses the destinations of records. The modes with a file append to `file`, which is created
// with mode 0640 and may be truncated in place while it is open. If it cannot be opened, one
// message on standard error says so, and the records go to standard error instead.
void setup(PrintMode mode, const char* file = nullptr);

// Records with a level above `level` are not printed. The default is 30; 0 prints nothing. If
// `logChange` is true, the change itself is logged at INFO.
void setPrintLevel(unsigned level, bool logChange);

// The level of setPrintLevel; lock-free, because signal handlers read it. Call isPrintable instead.
extern std::atomic<int> printThreshold;

// True when records of `level` are printed. Inline, so that the test of a record that is not
// printed costs one comparison.
inline bool isPrintable(int level) {
    return level <= printThreshold.load(std::memory_order_relaxed);
}

// Prints "<UTC time> <label> <message>" and a line feed; syslog receives the message only. Does not
// check the level: call isPrintable first.
void printfGeneric(int level, const char* label, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

} // namespace ZEP::Logger
