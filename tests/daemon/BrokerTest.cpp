// The daemon's link to a real broker that refuses, comes and goes, or keeps the echo to itself.
#include "support/Company.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <fstream>

namespace {

// Makes the broker ask for the user lora with the password secret.
void restartWithPassword(Company& company, const std::string& settings = {}) {
    const std::string file = company.file("passwords");
    EXPECT_EQ(Process(MOSQUITTO_PASSWD_PROGRAM " -c -b " + file + " lora secret",
                      company.file("passwd.out"))
                  .waitForEnd(),
              0);
    company.restartBroker("allow_anonymous false\npassword_file " + file + "\n" + settings);
    company.configuration["mqtt"]["username"] = "lora";
    company.configuration["mqtt"]["password"] = "secret";
}

} // namespace

TEST(BrokerLink, LogsInWithBothCredentialsOrAnonymously) {
    Company company;
    restartWithPassword(company);
    company.startReadyDaemon();
    EXPECT_TRUE(company.logged("TRACE MQTT - connected with server VEYRA_SERVER\n"));
    EXPECT_TRUE(company.logged("TRACE MQTT - subscribed id: 1 qos_count: 1 granted_qos: 2\n"));
    company.configuration["mqtt"]["password"] = "wrong";
    for (int i = 0; i < 2; ++i) {
        company.startReadyDaemon();
        EXPECT_TRUE(company.logged("ERROR MQTT - Impossible to connect with server(5)\n"));
        EXPECT_EQ(occurrences(company.log(), "MQTT - connected"), 0U);
        company.configuration["mqtt"].removeMember("password");
    }
}

TEST(BrokerLink, SurvivesRestartsAndDeliversWhatWasQueuedInOrder) {
    const char* rounds = std::getenv("VEYRA_BROKER_RESTARTS");
    const std::size_t restarts = rounds == nullptr ? 2 : std::strtoul(rounds, nullptr, 10);
    Company company;
    company.startReadyDaemon();
    company.send(checkIn("m1/x", 0));
    ASSERT_EQ(company.replies(1).size(), 1U);
    const std::size_t descriptors = company.daemon->countOf("fd");
    const std::size_t threads = company.daemon->countOf("task");
    const long residentKiB = company.daemon->statusValue("VmRSS:");
    int sent = 1;
    for (std::size_t round = 1; round <= restarts; ++round) {
        company.killBroker();
        ASSERT_TRUE(company.logged("DEBUG MQTT disconnected NET: 0 VEYRA: 1 ", round));
        for (int i = 0; i < 3; ++i) {
            company.send(checkIn("m1/x", sent++));
        }
        company.restartBroker();
        company.subscribe();
        const std::vector<std::string> replies = company.replies(3, Deadline(20000));
        ASSERT_EQ(replies.size(), 3U);
        for (unsigned i = 0; i < 3; ++i) {
            ASSERT_EQ(parsed(replies[i])["result"]["id"].asInt(), sent - 3 + static_cast<int>(i));
        }
        EXPECT_EQ(company.daemon->countOf("fd"), descriptors);
        EXPECT_EQ(company.daemon->countOf("task"), threads);
    }
    EXPECT_LT(company.daemon->statusValue("VmRSS:"), residentKiB * 2);
    EXPECT_EQ(company.daemon->end(SIGTERM), 0);
}

TEST(BrokerLink, IsRebuiltWhenTheEchoStaysAway) {
    Company company;
    std::ofstream(company.file("acl")) << "user lora\ntopic write lora/#\n";
    restartWithPassword(company, "acl_file " + company.file("acl"));
    company.startReadyDaemon();
    const std::string record = "MQTT disconnected NET: 0 VEYRA: 1 Connected: 1 Keepalive: ";
    ASSERT_TRUE(company.logged(record, 2, Deadline(50000)));
    const std::string log = company.log();
    const long firstMs = std::stol(log.substr(log.find(record) + record.size()));
    const long secondMs = std::stol(log.substr(log.rfind(record) + record.size()));
    EXPECT_GT(firstMs, 30000);
    EXPECT_LT(firstMs, 32000);
    EXPECT_GE(secondMs - firstMs, 9000);
    EXPECT_LT(secondMs - firstMs, 11000);
}
