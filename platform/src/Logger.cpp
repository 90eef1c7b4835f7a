#include "ZEP/Logger.h"

#include "LogRecord.h"
#include "Syslog.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace ZEP::Logger {

std::atomic<int> printThreshold{PrintLevel::INFO_LEVEL};

namespace {

constexpr int none = -1;

// Lock-free, because signal handlers read them.
std::atomic<int> consoleDescriptor{none};
std::atomic<int> fileDescriptor{STDERR_FILENO};
std::atomic<bool> toSyslog{false};
// ARMv5 has no atomic instructions and uses functions of the kernel, which are lock-free. Types
// that need a lock would fail to link, because libatomic is not linked.
static_assert(ATOMIC_INT_LOCK_FREE != 0 && ATOMIC_BOOL_LOCK_FREE != 0);

bool writesConsole(PrintMode mode) {
    return mode == CONSOLE_MODE || mode == CONSOLE_AND_FILE_MODE || mode == CONSOLE_AND_SYSLOG_MODE;
}

bool writesFile(PrintMode mode) {
    return mode == FILE_MODE || mode == CONSOLE_AND_FILE_MODE;
}

bool writesSyslog(PrintMode mode) {
    return mode == SYSLOG_MODE || mode == CONSOLE_AND_SYSLOG_MODE;
}

static_assert(sizeof(off_t) == 8, "logs must be able to grow past 2 GiB");

int openLogFile(const char* file) {
    constexpr mode_t ownerAndGroup = 0640;
    if (file == nullptr) {
        std::fputs("Cannot open log file []: no name\n", stderr);
        return STDERR_FILENO;
    }
    const int descriptor = open(file, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, ownerAndGroup);
    if (descriptor == none) {
        std::fprintf(stderr, "Cannot open log file [%s]: %s\n", file, std::strerror(errno));
        return STDERR_FILENO;
    }
    return descriptor;
}

// Replaces the descriptor in one step, so that a signal handler always finds a valid one.
void changeLogFile(int descriptor) {
    const int old = fileDescriptor.exchange(descriptor);
    if (old > STDERR_FILENO) {
        close(old);
    }
}

void writeRecord(int descriptor, const LogRecord& record) {
    // If the disk is full or the console is closed, only this record is lost.
    if (descriptor != none && write(descriptor, record.line(), record.lineLength()) < 0) {
        return;
    }
}

} // namespace

void setup(PrintMode mode, const char* file) {
    consoleDescriptor = writesConsole(mode) ? STDOUT_FILENO : none;
    changeLogFile(writesFile(mode) ? openLogFile(file) : none);
    toSyslog = writesSyslog(mode) && openSyslog();
}

void setPrintLevel(unsigned level, bool logChange) {
    constexpr unsigned everything = 100;
    printThreshold = static_cast<int>(level < everything ? level : everything);
    if (logChange && isPrintable(PrintLevel::INFO_LEVEL)) {
        printfGeneric(PrintLevel::INFO_LEVEL, PrintLevel::INFO_LABEL, "Print level set to %u",
                      level);
    }
}

void printfGeneric(int level, const char* label, const char* format, ...) {
    const int keptErrno = errno;
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    va_list arguments;
    va_start(arguments, format);
    {
        const LogRecord record(now, label, format, arguments);
        writeRecord(consoleDescriptor, record);
        writeRecord(fileDescriptor, record);
        if (toSyslog) {
            sendToSyslog(level, record.message(), record.messageLength());
        }
    }
    va_end(arguments);
    errno = keptErrno;
}

} // namespace ZEP::Logger
