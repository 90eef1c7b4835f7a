#include "common/Log.h"

#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
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

TEST_F(LogFile, HasOneLineARecordInAFileOfMode0640) {
    VEYRA_LOG(ERROR, "%s", std::string(20000, 'x').c_str());
    VEYRA_LOG(INFO, "short %d", 7);
    const std::string time = R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z )";
    const std::string text = content();
    const auto secondLine = text.find('\n') + 1;
    EXPECT_EQ(text.substr(24, secondLine - 24), " ERROR " + std::string(20000, 'x') + "\n");
    EXPECT_TRUE(std::regex_match(text.substr(secondLine), std::regex(time + "INFO short 7\n")));
    struct stat status {};
    stat(path.c_str(), &status);
    EXPECT_EQ(status.st_mode & 07777U, 0640U);
}

TEST_F(LogFile, IsAppendedToAfterTruncationInPlace) {
    VEYRA_LOG(ERROR, "before");
    ASSERT_EQ(truncate(path.c_str(), 0), 0);
    VEYRA_LOG(ERROR, "after");
    EXPECT_EQ(content().size(), std::string("2026-11-21T04:25:47.123Z ERROR after\n").size());
}

TEST_F(LogFile, PrintsLevelsUpToTheThreshold) {
    for (const int level : {0, 10, 35, 100}) {
        ZEP::Logger::setPrintLevel(static_cast<unsigned>(level), false);
        for (const int record : {10, 20, 30, 40, 50}) {
            EXPECT_EQ(ZEP::Logger::isPrintable(record), record <= level) << record << level;
        }
    }
    ZEP::Logger::setPrintLevel(4000000000U, true);
    EXPECT_TRUE(ZEP::Logger::isPrintable(50));
    EXPECT_NE(content().find("INFO Print level set to"), std::string::npos);
}

TEST_F(LogFile, TakesRecordsFromAHandlerThatInterruptsARecord) {
    std::signal(SIGALRM, logFromHandler);
    const itimerval often = {{0, 200}, {0, 200}};
    setitimer(ITIMER_REAL, &often, nullptr);
    const std::string longText(2000, 'm');
    for (int i = 0; i < 20000; ++i) {
        VEYRA_LOG(ERROR, "%s", longText.c_str());
    }
    const itimerval never{};
    setitimer(ITIMER_REAL, &never, nullptr);
    std::istringstream lines(content());
    int fromHandler = 0;
    for (std::string line; std::getline(lines, line);) {
        const std::string message = line.substr(31);
        fromHandler += message == "handler 14" ? 1 : 0;
        EXPECT_TRUE(message == "handler 14" || message == longText) << line;
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
