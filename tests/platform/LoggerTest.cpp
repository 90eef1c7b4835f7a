#include "LogRecord.h"
#include "common/Log.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <fstream>
#include <map>
#include <sys/time.h>
#include <unistd.h>

namespace {

// The time at the start of a record.
constexpr std::size_t timeLength = 24;

struct LogFile : testing::Test {
    LogFile() {
        ZEP::Logger::setPrintLevel(30, false);
        ZEP::Logger::setup(ZEP::Logger::FILE_MODE, path.c_str());
    }
    ~LogFile() override { unlink(path.c_str()); }

    // The records without their times, and how often each one occurs.
    std::map<std::string, int> records() const {
        std::map<std::string, int> records;
        std::ifstream file(path);
        for (std::string line; std::getline(file, line);) {
            ++records[line.substr(timeLength)];
        }
        return records;
    }

    const std::string path = testing::TempDir() + "logger-" + std::to_string(getpid()) + ".log";
};

using Records = std::map<std::string, int>;

// The interval at which SIGALRM interrupts the test; 0: never.
void setSignalInterval(int microseconds) {
    const itimerval interval = {{0, microseconds}, {0, microseconds}};
    setitimer(ITIMER_REAL, &interval, nullptr);
}

std::string recordAt(const timespec& now, ...) {
    va_list none;
    va_start(none, now);
    const ZEP::Logger::LogRecord record(now, "L", "m", none);
    va_end(none);
    return {record.line(), record.lineLength()};
}

} // namespace

TEST_F(LogFile, HasRecordsOfEveryLength) {
    // The short buffer has 512 bytes.
    for (std::size_t length = 440; length < 520; ++length) {
        const std::string message(length, 'm');
        VEYRA_LOG(WARNING, "%s", message.c_str());
        EXPECT_EQ(records()[" WARNING " + message], 1) << length;
    }
    const std::string longMessage(10000, 'm');
    VEYRA_LOG(WARNING, "%s", longMessage.c_str());
    EXPECT_EQ(records()[" WARNING " + longMessage], 1);
    EXPECT_EQ(records().size(), 81U);
}

TEST_F(LogFile, ContinuesAtTheStartAfterTruncation) {
    VEYRA_LOG(ERROR, "before");
    EXPECT_EQ(truncate(path.c_str(), 0), 0); // like log rotation
    VEYRA_LOG(ERROR, "after");
    EXPECT_EQ(records(), (Records{{" ERROR after", 1}}));
}

TEST_F(LogFile, KeepsErrnoWhenARecordIsLost) {
    ZEP::Logger::setup(ZEP::Logger::FILE_MODE, "/dev/full");
    errno = EINTR;
    VEYRA_LOG(ERROR, "lost");
    EXPECT_EQ(errno, EINTR);
}

TEST_F(LogFile, HasCompleteRecordsWhenASignalHandlerLogsToo) {
    std::signal(SIGALRM, [](int /*number*/) { VEYRA_LOG(ERROR, "%s", "handler"); });
    const std::string shortText(300, 's'); // on the stack
    const std::string longText(2000, 'l'); // in allocated memory
    setSignalInterval(60);
    for (int i = 0; i < 10000; ++i) {
        VEYRA_LOG(ERROR, "%s", shortText.c_str());
        VEYRA_LOG(ERROR, "%s", longText.c_str());
    }
    setSignalInterval(0);
    Records all = records();
    EXPECT_EQ(all[" ERROR " + shortText], 10000);
    EXPECT_EQ(all[" ERROR " + longText], 10000);
    EXPECT_GT(all[" ERROR handler"], 10);
    EXPECT_EQ(all.size(), 3U);
}

TEST(LogThreshold, PrintsLevelsUpToTheThreshold) {
    for (const unsigned threshold : {0U, 10U, 4000000000U}) {
        SCOPED_TRACE(threshold);
        ZEP::Logger::setPrintLevel(threshold, false);
        EXPECT_EQ(ZEP::Logger::isPrintable(10), threshold >= 10);
        EXPECT_EQ(ZEP::Logger::isPrintable(50), threshold >= 50);
    }
}

TEST(LogRecord, HasTheCalendarDateAndMilliseconds) {
    for (int day = 0; day < 365 * 200; ++day) {
        const timespec now = {time_t{day} * 86400 + day % 86400, 12999999};
        char wanted[40];
        strftime(wanted, sizeof wanted, "%Y-%m-%dT%H:%M:%S.012Z L m\n", gmtime(&now.tv_sec));
        ASSERT_EQ(recordAt(now), wanted);
    }
}
