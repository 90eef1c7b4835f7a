// How the built program starts, fails to start, and ends.
#include "support/Peers.h"

#include <gtest/gtest.h>

#include <csignal>
#include <fstream>

namespace {

struct Lifecycle : testing::Test {
    TestFolder folder;
    Broker broker{folder};
    DaemonSetup setup{folder, broker, "https://localhost:1/api/"};

    int endOf(const DaemonSetup& changed) {
        daemon = std::make_unique<Daemon>(changed);
        return daemon->program().waitForEnd();
    }
    std::unique_ptr<Daemon> daemon;
};

} // namespace

TEST_F(Lifecycle, EndsWithTheStatusOfEachFault) {
    setup.options = {"-c", folder / "missing.conf"};
    EXPECT_EQ(endOf(setup), 1);
    EXPECT_TRUE(daemon->waitForRecord("ERROR Configuration file not found [" +
                                      (folder / "missing.conf").string() + "]\n"));
    std::ofstream(folder / "broken.conf") << "{";
    setup.options = {"-c", folder / "broken.conf"};
    EXPECT_EQ(endOf(setup), 1);
    EXPECT_TRUE(daemon->waitForRecord("broken.conf], invalid JSON\n"));

    setup.options = {"-l"};
    EXPECT_EQ(endOf(setup), -SIGABRT);
    setup.options = {"--version"};
    EXPECT_EQ(endOf(setup), 0);
    EXPECT_EQ(daemon->program().output(), "ZEP LoRa VEYRA Server - Version 2.4.22\r\n");

    setup.options = {};
    setup.program = UNLICENSED_PROGRAM;
    EXPECT_EQ(endOf(setup), 1);
    EXPECT_EQ(occurrences(daemon->program().errors(), "\n"), 1U);
}

TEST_F(Lifecycle, EndsWithoutAnIdentityOrABroker) {
    setup.configuration["mqtt"].removeMember("enabled");
    EXPECT_EQ(endOf(setup), 0);
    EXPECT_TRUE(daemon->waitForRecord("ERROR MQTT must be enabled.\n"));
    setup.configuration["network"].removeMember("gatewayKey");
    EXPECT_EQ(endOf(setup), -SIGABRT);
}

TEST_F(Lifecycle, SaysThatThePortIsTakenAndEnds) {
    Daemon first(setup);
    ASSERT_TRUE(first.waitUntilReady());
    setup.configuration["log"]["level"] = 10;
    EXPECT_EQ(endOf(setup), 0);
    const std::string text = "File src/VeyraServer Line 284: Cannot open Upstream UDP socket. "
                             "Unable to bind socket   Error #0";
    EXPECT_NE(daemon->program().errors().find(text), std::string::npos);
    EXPECT_EQ(daemon->program().errors().back(), '0') << "no line feed behind the report";
    EXPECT_TRUE(daemon->waitForRecord("ERROR " + text + "\n"));
}

TEST_F(Lifecycle, ShowsTheConfigurationThatItCompleted) {
    setup.configuration.removeMember("udp");
    setup.configuration["log"] = Json::Value();
    setup.configuration["mqtt"]["enabled"] = false;
    EXPECT_EQ(endOf(setup), 0);
    const std::string log = daemon->log();
    for (const char* part : {"INFO Lora VEYRA Server started, version 2.4.22\n",
                             "INFO VEYRA Server Config --------------------- \r\n{\n",
                             "\"console\" : null", "\"syslog\" : null", "\"veyraPort\" : 1790",
                             "INFO -------------------------------------------\n"}) {
        EXPECT_EQ(occurrences(log, part), 1U) << part << log;
    }
}

TEST(LifecycleUnderLoad, StopsAtAnyMomentWithStatusZero) {
    constexpr int rounds = 200;
    Company company;
    std::srand(20261121);
    for (int round = 0; round < rounds; ++round) {
        company.daemon.reset();
        std::filesystem::remove(company.folder / "daemon.log");
        company.daemon = std::make_unique<Daemon>(company.setup);
        ASSERT_TRUE(company.daemon->waitForRecord("Lora VEYRA Server started"));
        const auto end =
            std::chrono::steady_clock::now() + std::chrono::milliseconds(std::rand() % 120);
        while (std::chrono::steady_clock::now() < end) {
            company.daemon->sendDatagram(checkIn("m1/x", round, 300));
            usleep(500);
        }
        ASSERT_EQ(company.daemon->program().stop(), 0) << "round " << round;
    }
}

TEST(LifecycleUnderLoad, StopsAtOnceWhenIdleAndWhenPeersAreAway) {
    Company company;
    for (const bool brokerAway : {false, true}) {
        if (brokerAway) {
            company.broker.kill();
            company.setup.configuration["network"]["veyraServer"] = "https://localhost:1/api/";
        }
        company.startDaemon();
        company.daemon->sendDatagram(checkIn("m1/x"));
        EXPECT_TRUE(
            company.daemon->waitForRecord(brokerAway ? "Curl call failed" : "Curl Response"));
        company.daemon->program().send(SIGINT);
        EXPECT_EQ(company.daemon->program().waitForEnd(Deadline(500)), 0);
        EXPECT_TRUE(company.daemon->waitForRecord("INFO Shutdown signal received 2\n"));
        EXPECT_TRUE(company.daemon->waitForRecord("DEBUG Program closing\n"));
    }
}

TEST(LifecycleUnderLoad, WorkerClosesDescriptorZeroAndKeepsAQuarterOfItsStack) {
    Company company;
    // A name that does not resolve takes the worker through its deepest path.
    company.setup.configuration["mqtt"]["host"] = "no-such-host.invalid";
    company.setup.configuration["log"]["console"] = true;
    company.setup.environment = {"LD_PRELOAD=" STACK_PAINT_LIBRARY};
    company.startDaemon();
    ASSERT_TRUE(company.daemon->waitForRecord("DEBUG MQTT disconnected", 2, Deadline(30000)));
    company.cloud.setFault("stall 12000");
    company.daemon->sendDatagram(checkIn("m1/x"));
    EXPECT_TRUE(company.daemon->waitForRecord("request body: "));
    Process& program = company.daemon->program();
    program.send(SIGTERM);
    const std::string standardInput = "/proc/" + std::to_string(program.pid()) + "/fd/0";
    EXPECT_TRUE(
        eventually([&] { return !std::filesystem::is_symlink(standardInput); }, Deadline(11000)));
    EXPECT_EQ(program.waitForEnd(Deadline(15000)), 0);
    std::size_t used = 0;
    std::size_t size = 0;
    ASSERT_EQ(std::sscanf(program.errors().c_str(), "stack: %zu of %zu", &used, &size), 2)
        << program.errors();
    RecordProperty("stackBytesUsed", std::to_string(used));
    EXPECT_LE(used, size * 3 / 4) << "of " << size;
}
