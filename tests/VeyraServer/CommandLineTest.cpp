#include "VeyraServer/CommandLine.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <vector>

namespace {

CommandLine parse(std::vector<const char*> arguments) {
    arguments.insert(arguments.begin(), "lora-veyra-server");
    return parseCommandLine(static_cast<int>(arguments.size()), arguments.data());
}

std::string printed(const char* option) {
    testing::internal::CaptureStdout();
    EXPECT_TRUE(parse({option, "-c"}).bannerShown) << option; // nothing behind it is read
    return testing::internal::GetCapturedStdout();
}

} // namespace

TEST(CommandLine, HasDefaultsAndIgnoresWhatItDoesNotKnow) {
    const CommandLine plain = parse({"--c", "x", "-version", "c", "-", "-C", "y", "help"});
    EXPECT_EQ(plain.configurationFile, "./lora-veyra-server.conf");
    EXPECT_EQ(plain.logFileOrDefault(), "/var/log/lora-veyra-server.log");
    EXPECT_EQ(plain.runDirectory, "/var/run");
    EXPECT_FALSE(plain.logFile || plain.bannerShown);
}

TEST(CommandLine, TakesTheNextArgumentAndLooksAtItInTurn) {
    const CommandLine given = parse({"-c", "a", "-l", "b", "--var-run", "c"});
    EXPECT_EQ(given.configurationFile, "a");
    EXPECT_EQ(given.logFileOrDefault(), "b");
    EXPECT_EQ(given.runDirectory, "c");
    const CommandLine chained = parse({"-c", "-l", "x"});
    EXPECT_EQ(chained.configurationFile, "-l");
    EXPECT_EQ(chained.logFile, "x");
    EXPECT_THROW(parse({"--var-run"}), std::logic_error);
}

TEST(CommandLine, PrintsBannersAndEnds) {
    EXPECT_EQ(printed("--version"), "ZEP LoRa VEYRA Server - Version 2.4.22\r\n");
    for (const char* option : {"-help", "--help"}) {
        const std::string text = printed(option);
        EXPECT_EQ(text.rfind("Tarnwick Lora VEYRA Server v2.4.22\n\nUsage: ", 0), 0U) << text;
    }
}
