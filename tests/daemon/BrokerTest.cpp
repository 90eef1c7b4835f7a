// The daemon's link to a real broker that refuses, comes and goes, or keeps the echo to itself.
#include "support/Peers.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

namespace {

// Settings of a broker with the user lora, password secret, and further lines.
std::string passwordSettings(const TestFolder& folder, const std::string& more = {}) {
    const std::string file = folder / "passwords";
    const std::string command =
        MOSQUITTO_PASSWD_PROGRAM " -c -b " + file + " lora secret > /dev/null";
    EXPECT_EQ(std::system(command.c_str()), 0);
    return "allow_anonymous false\npassword_file " + file + "\n" + more;
}

void setCredentials(DaemonSetup& setup, const char* user, const char* password) {
    setup.configuration["mqtt"]["username"] = user;
    if (password != nullptr) {
        setup.configuration["mqtt"]["password"] = password;
    }
}

} // namespace

TEST(BrokerLink, LogsInWithBothCredentialsOrAnonymously) {
    const struct {
        const char* user;
        const char* password;
        bool accepted;
        const char* record;
    } cases[] = {
        {"lora", "secret", true, "TRACE MQTT - connected with server VEYRA_SERVER\n"},
        {"lora", "wrong", false, "ERROR MQTT - Impossible to connect with server(5)\n"},
        {"lora", nullptr, false, "ERROR MQTT - Impossible to connect with server(5)\n"},
    };
    for (const auto& c : cases) {
        TestFolder folder;
        Broker broker(folder, passwordSettings(folder));
        DaemonSetup setup(folder, broker, "https://localhost:1/api/");
        setCredentials(setup, c.user, c.password);
        Daemon daemon(setup);
        EXPECT_TRUE(daemon.waitForRecord(c.record)) << c.user << c.record;
        EXPECT_EQ(daemon.waitForRecord("MQTT - subscribed id: 1 qos_count: 1 granted_qos: 2", 1,
                                       Deadline(c.accepted ? 10000 : 0)),
                  c.accepted);
        EXPECT_EQ(daemon.program().stop(), 0);
    }
}

TEST(BrokerLink, SurvivesRestartsAndDeliversWhatWasQueuedInOrder) {
    const char* rounds = std::getenv("VEYRA_BROKER_RESTARTS");
    const std::size_t restarts = rounds == nullptr ? 2 : std::strtoul(rounds, nullptr, 10);
    Company company;
    company.startDaemon();
    Process& program = company.daemon->program();
    company.daemon->sendDatagram(checkIn("m1/x", 0));
    ASSERT_EQ(company.subscriber.payloads(1).size(), 1U);
    const std::size_t descriptors = program.countOf("fd");
    const std::size_t threads = program.countOf("task");
    std::size_t sent = 1;
    for (std::size_t round = 1; round <= restarts; ++round) {
        company.broker.kill();
        ASSERT_TRUE(
            company.daemon->waitForRecord("DEBUG MQTT disconnected NET: 0 VEYRA: 1 ", round));
        for (int i = 0; i < 3; ++i) {
            company.daemon->sendDatagram(checkIn("m1/x", static_cast<int>(sent++)));
        }
        company.broker.start();
        ASSERT_TRUE(company.subscriber.waitForSubscription(round + 1));
        const std::vector<std::string> replies = company.subscriber.payloads(sent, Deadline(20000));
        ASSERT_EQ(replies.size(), sent);
        for (std::size_t i = 0; i < sent; ++i) {
            ASSERT_EQ(parsed(replies[i])["result"]["id"], static_cast<int>(i));
        }
        EXPECT_EQ(program.countOf("fd"), descriptors);
        EXPECT_EQ(program.countOf("task"), threads);
    }
    EXPECT_EQ(program.stop(), 0);
}

TEST(BrokerLink, IsRebuiltWhenTheEchoStaysAway) {
    TestFolder folder;
    std::ofstream(folder / "acl") << "user lora\ntopic write lora/#\n";
    Broker broker(folder, passwordSettings(folder, "acl_file " + (folder / "acl").string() + "\n"));
    DaemonSetup setup(folder, broker, "https://localhost:1/api/");
    setCredentials(setup, "lora", "secret");
    Daemon daemon(setup);
    const std::string record = "MQTT disconnected NET: 0 VEYRA: 1 Connected: 1 Keepalive: ";
    ASSERT_TRUE(daemon.waitForRecord(record, 2, Deadline(50000)));
    const std::string log = daemon.log();
    const auto silenceMs = [&](std::size_t at) {
        return std::strtol(log.c_str() + at + record.size(), nullptr, 10);
    };
    const long first = silenceMs(log.find(record));
    const long second = silenceMs(log.rfind(record));
    EXPECT_GT(first, 30000);
    EXPECT_LT(first, 32000);
    EXPECT_GE(second - first, 9000);
    EXPECT_LT(second - first, 11000);
    EXPECT_EQ(daemon.program().stop(), 0);
}
