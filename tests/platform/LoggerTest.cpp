#include "LogRecord.h"
#include "common/Log.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <fstream>
#include <map>
#include <sstream>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

struct LogFile : testing::Test {
    LogFile() {
        ZEP::Logger::setPrintLevel(30, false);
        ZEP::Logger::setup(ZEP::Logger::FILE_MODE, path.c_str());
    }
    ~LogFile() override { unlink(path.c_str()); }
    std::string content() const {
        std::ostringstream text;
        text << std::ifstream(path).rdbuf();
        return text.str();
    }
    const std::string path = testing::TempDir() + "logger-" + std::to_string(getpid()) + ".log";
};

std::string recordLine(const timespec& now, const char* label, const char* format, ...) {
    va_list none;
    va_start(none, format);
    const ZEP::Logger::LogRecord record(now, label, format, none);
    va_end(none);
    return {record.line(), record.lineLength()};
}

} // namespace

TEST_F(LogFile, HasRecordsOfEveryLengthWholeAndMayBeTruncatedInPlace) {
    struct stat status {};
    stat(path.c_str(), &status);
    EXPECT_EQ(status.st_mode & 07777U, 0640U);
    for (std::size_t length = 440; length < 520; ++length) { // around the end of the short buffer
        const std::string message(length % 10 == 0 ? 20 * length : length, 'm');
        VEYRA_LOG(WARNING, "%s", message.c_str());
        VEYRA_LOG(DEBUG, "not printed");
        EXPECT_EQ(content().substr(24), " WARNING " + message + "\n");
        EXPECT_EQ(truncate(path.c_str(), 0), 0); // as log rotation does
    }
    ZEP::Logger::setup(ZEP::Logger::FILE_MODE, "/dev/full");
    errno = EINTR;
    VEYRA_LOG(ERROR, "lost");
    EXPECT_EQ(errno, EINTR);
}

TEST_F(LogFile, PrintsLevelsUpToTheThreshold) {
    for (const unsigned threshold : {0U, 10U, 4000000000U}) {
        ZEP::Logger::setPrintLevel(threshold, false);
        EXPECT_EQ(ZEP::Logger::isPrintable(10), threshold >= 10);
        EXPECT_EQ(ZEP::Logger::isPrintable(50), threshold >= 50);
    }
}

TEST(LogRecord, HasTheDateThatTheCalendarHas) {
    for (int day = 0; day < 365 * 200; ++day) {
        const timespec now = {time_t{day} * 86400 + day % 86400, day % 1000 * 1000000 + 999999};
        char wanted[40];
        strftime(wanted, sizeof wanted, "%Y-%m-%dT%H:%M:%S", gmtime(&now.tv_sec));
        char milliseconds[40];
        std::snprintf(milliseconds, sizeof milliseconds, ".%03dZ L m\n", day % 1000);
        ASSERT_EQ(recordLine(now, "L", "m"), std::string(wanted) + milliseconds);
    }
}

TEST_F(LogFile, TakesRecordsFromAHandlerThatInterruptsARecord) {
    std::signal(SIGALRM, [](int /*number*/) { VEYRA_LOG(ERROR, "%s", "handler"); });
    itimerval often = {{0, 200}, {0, 200}};
    setitimer(ITIMER_REAL, &often, nullptr);
    const std::string longText(2000, 'm');
    for (int i = 0; i < 20000; ++i) {
        VEYRA_LOG(ERROR, "%s", longText.c_str());
    }
    often = {};
    setitimer(ITIMER_REAL, &often, nullptr);
    std::istringstream lines(content());
    std::map<std::string, int> records;
    for (std::string line; std::getline(lines, line);) {
        ++records[line.substr(24)];
    }
    EXPECT_EQ(records[" ERROR " + longText], 20000);
    EXPECT_GT(records[" ERROR handler"], 10);
    EXPECT_EQ(records.size(), 2U) << "each record whole";
}
