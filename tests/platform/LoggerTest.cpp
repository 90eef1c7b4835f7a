#include "common/Log.h"

#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
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

void logFromHandler(int signalNumber) {
    VEYRA_LOG(ERROR, "handler %d", signalNumber);
}

} // namespace

TEST_F(LogFile, HasOneLineARecordAndMayBeTruncatedInPlace) {
    VEYRA_LOG(ERROR, "%s", std::string(20000, 'x').c_str());
    VEYRA_LOG(TRACE, "not printed");
    EXPECT_EQ(content().substr(24), " ERROR " + std::string(20000, 'x') + "\n");
    struct stat status {};
    stat(path.c_str(), &status);
    EXPECT_EQ(status.st_mode & 07777U, 0640U);
    ASSERT_EQ(truncate(path.c_str(), 0), 0); // as log rotation does
    VEYRA_LOG(INFO, "short %d", 7);
    tm time{};
    EXPECT_STREQ(strptime(content().c_str(), "%Y-%m-%dT%H:%M:%S", &time) + 4, "Z INFO short 7\n");
    EXPECT_LE(std::abs(timegm(&time) - std::time(nullptr)), 2);
}

TEST_F(LogFile, PrintsLevelsUpToTheThreshold) {
    for (const unsigned threshold : {0U, 10U, 35U, 100U, 4000000000U}) {
        ZEP::Logger::setPrintLevel(threshold, false);
        EXPECT_EQ(ZEP::Logger::isPrintable(10), threshold >= 10);
        EXPECT_EQ(ZEP::Logger::isPrintable(50), threshold >= 50);
    }
}

TEST_F(LogFile, TakesRecordsFromAHandlerThatInterruptsARecord) {
    std::signal(SIGALRM, logFromHandler);
    itimerval often = {{0, 200}, {0, 200}};
    setitimer(ITIMER_REAL, &often, nullptr);
    const std::string longText(2000, 'm');
    for (int i = 0; i < 20000; ++i) {
        VEYRA_LOG(ERROR, "%s", longText.c_str());
    }
    often = {};
    setitimer(ITIMER_REAL, &often, nullptr);
    std::istringstream lines(content());
    int fromHandler = 0;
    for (std::string line; std::getline(lines, line);) {
        fromHandler += line.substr(31) == "handler 14" ? 1 : 0;
        EXPECT_TRUE(line.substr(31) == "handler 14" || line.substr(31) == longText) << line;
    }
    EXPECT_GT(fromHandler, 10);
}

TEST(Logger, FallsBackToStandardErrorWhenTheFileCannotBeOpened) {
    testing::internal::CaptureStderr();
    ZEP::Logger::setup(ZEP::Logger::FILE_MODE, "/nowhere/x.log");
    VEYRA_LOG(ERROR, "goes on");
    const std::string text = testing::internal::GetCapturedStderr();
    EXPECT_EQ(text.rfind("Cannot open log file [/nowhere/x.log]: ", 0), 0U) << text;
    EXPECT_NE(text.find(" ERROR goes on\n"), std::string::npos) << text;
}
