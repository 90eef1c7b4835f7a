// How the built program starts, fails to start, and ends.
#include "support/Company.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>

namespace {

#ifdef VEYRA_SANITIZED // their own work at exit takes a second
constexpr Deadline atOnce(3000);
constexpr int rounds = 30;
#else
constexpr Deadline atOnce(500);
constexpr int rounds = 200;
#endif

} // namespace

TEST(Lifecycle, EndsWithTheStatusOfEachFault) {
    Company company;
    EXPECT_EQ(company.startDaemon("-c /nowhere").waitForEnd(), 1);
    EXPECT_TRUE(company.logged("ERROR Configuration file not found [/nowhere]\n"));
    EXPECT_EQ(company.startDaemon("-c /").waitForEnd(), 1);
    EXPECT_TRUE(company.logged("ERROR Failed to parse config file [/], invalid JSON\n"));
    EXPECT_EQ(company.startDaemon("-l").waitForEnd(), -SIGABRT);
    EXPECT_EQ(company.startDaemon("", UNLICENSED_PROGRAM).waitForEnd(), 1);
    EXPECT_EQ(occurrences(company.daemon->errors(), "\n"), 1U);

    company.configuration.removeMember("udp");
    company.configuration["log"] = Json::Value();
    company.configuration["mqtt"].removeMember("enabled");
    EXPECT_EQ(company.startDaemon().waitForEnd(), 0);
    for (const char* part :
         {"INFO Lora VEYRA Server started, version 2.4.22\n",
          "INFO VEYRA Server Config --------------------- \r\n{\n", "\"console\" : null",
          "\"syslog\" : null", "\"veyraPort\" : 1790", "--\n", "ERROR MQTT must be enabled.\n"}) {
        EXPECT_EQ(occurrences(company.log(), part), 1U) << part << company.log();
    }
    company.configuration["network"].removeMember("gatewayKey");
    EXPECT_EQ(company.startDaemon().waitForEnd(), -SIGABRT);
}

TEST(Lifecycle, SaysThatThePortIsTakenAndEnds) {
    Company company;
    company.startReadyDaemon();
    std::unique_ptr<Process> first;
    first.swap(company.daemon);
    EXPECT_EQ(company.startDaemon().waitForEnd(), 0);
    const std::string text = "File src/VeyraServer Line 284: Cannot open Upstream UDP socket. "
                             "Unable to bind socket   Error #0";
    EXPECT_EQ(company.daemon->errors(), text) << "no line feed behind it";
    EXPECT_TRUE(company.logged("ERROR " + text + "\n"));
}

TEST(Lifecycle, StopsAtAnyMomentUnderLoadWithStatusZero) {
    Company company;
    for (int round = 0; round < rounds; ++round) {
        company.startDaemon();
        ASSERT_TRUE(company.logged("Lora VEYRA Server started"));
        eventually(
            [&] {
                company.send(checkIn("m1/x", round, 300));
                return false;
            },
            Deadline(std::rand() % 120));
        ASSERT_EQ(company.daemon->end(SIGTERM), 0) << "round " << round << company.log();
    }
}

TEST(Lifecycle, StopsAtOnceWhenIdleAndWhenPeersAreAway) {
    Company company;
    for (const bool peersAway : {false, true}) {
        if (peersAway) {
            company.killBroker();
            company.configuration["network"]["veyraServer"] = "https://localhost:1/api/";
        }
        company.startReadyDaemon();
        company.send(checkIn("m1/x"));
        EXPECT_TRUE(company.logged(peersAway ? "Curl call failed" : "Curl Response"));
        EXPECT_EQ(company.daemon->end(SIGINT, atOnce), 0);
        EXPECT_TRUE(company.logged("INFO Shutdown signal received 2\n"));
        EXPECT_TRUE(company.logged("DEBUG Program closing\n"));
    }
}

TEST(Lifecycle, WorkerClosesStandardInputWhileTheLastRequestIsFinished) {
    Company company;
    company.startReadyDaemon();
    company.send(checkIn("m1/x"));
    EXPECT_EQ(company.replies(1).size(), 1U); // the worker works
    company.setFault("stall 2000");
    company.send(checkIn("m1/x"));
    EXPECT_TRUE(company.logged("request body: ", 2));
    EXPECT_EQ(company.daemon->end(SIGTERM, Deadline(1000)), Process::stillRunning);
    EXPECT_FALSE(std::filesystem::is_symlink(company.daemon->proc() / "fd/0"));
    EXPECT_EQ(company.daemon->waitForEnd(), 0);
    EXPECT_TRUE(company.logged("Curl Response {", 2));
}
