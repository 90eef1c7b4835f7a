// The gateway's logger: one record a call, to the console, a file and syslog.
//
// Any thread and any signal handler may log: a record is composed without taking a lock and, while
// it fits a short line, without allocating, and goes out with one write to each place, so that a
// record from a handler neither waits for what it interrupted nor mixes with it. errno is kept.
// setup and setPrintLevel belong to start-up, before other threads run. The logger owns its
// descriptors and never closes them at exit, since detached threads log until the very end.
#pragma once

#include <atomic>

namespace ZEP::Logger {

// The levels and the labels that records of each level carry.
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

// Where records go. Until setup is called they go to standard error; the console is standard
// output.
enum PrintMode {
    CONSOLE_MODE = 1,
    FILE_MODE = 2,
    SYSLOG_MODE = 3,
    CONSOLE_AND_FILE_MODE = 4,
    CONSOLE_AND_SYSLOG_MODE = 5,
};

// Chooses where records go. `file` is used by the modes with a file: it is appended to, created
// with mode 0640, and may be truncated in place while open. When it cannot be opened, that is said
// once on standard error and its records go there.
void setup(PrintMode mode, const char* file = nullptr);

// Records with a level above `level` are not printed; 30 until set, 0 silences everything.
// `logChange` says whether the change itself is logged, at INFO.
void setPrintLevel(unsigned level, bool logChange);

// What setPrintLevel has set; lock-free, since handlers test it. Read through isPrintable.
extern std::atomic<int> printThreshold;

// True when records of `level` are printed. Costs one comparison and no call, so that callers test
// first and compose nothing for records that nobody reads.
inline bool isPrintable(int level) {
    return level <= printThreshold.load(std::memory_order_relaxed);
}

// Prints "<UTC time> <label> <message>" and a line feed; syslog gets the message alone. Does not
// test the level: callers ask isPrintable first.
void printfGeneric(int level, const char* label, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

} // namespace ZEP::Logger
