#include "VeyraServer/CommandLine.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <vector>

namespace {

CommandLine parse(std::vector<const char*> arguments) {
    arguments.insert(arguments.begin(), "lora-veyra-server");
    return parseCommandLine(static_cast<int>(arguments.size()), arguments.data());
}

} // namespace

TEST(CommandLine, KnowsItsOptionsAndLooksAtTheirValuesInTurn) {
    const CommandLine plain = parse({"--c", "x", "-version", "c", "-", "help"});
    EXPECT_EQ(plain.configurationFile, "./lora-veyra-server.conf");
    EXPECT_EQ(plain.logFileOrDefault(), "/var/log/lora-veyra-server.log");
    EXPECT_FALSE(plain.logFile || plain.bannerShown);
    const CommandLine given = parse({"-c", "-l", "b", "--var-run", "c"});
    EXPECT_EQ(given.configurationFile, "-l");
    EXPECT_EQ(given.logFileOrDefault(), "b");
    EXPECT_EQ(given.runDirectory, "c");
    EXPECT_THROW(parse({"-l"}), std::logic_error);
}

TEST(CommandLine, PrintsBannersAndLooksNoFurther) {
    testing::internal::CaptureStdout();
    for (const char* option : {"--version", "-help", "--help"}) {
        EXPECT_TRUE(parse({option, "-c"}).bannerShown) << option;
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout().rfind(
                  "ZEP LoRa VEYRA Server - Version 2.4.22\r\n"
                  "Tarnwick Lora VEYRA Server v2.4.22\n\nUsage: ",
                  0),
              0U);
}
