// Many datagrams, and hostile ones.
#include "support/Peers.h"

#include <gtest/gtest.h>

#include <fstream>
#include <random>
#include <set>

namespace {

long residentKiB(int pid) {
    const std::string status = fileText("/proc/" + std::to_string(pid) + "/status");
    return std::strtol(status.c_str() + status.find("VmRSS:") + 6, nullptr, 10);
}

// A datagram with some bytes changed, cut or doubled; the "path" member is always lost.
std::string mutated(std::mt19937& random) {
    std::string text = checkIn("m1/x", 1, random() % 400);
    text.replace(text.find("\"path\""), 6, "\"qath\"");
    for (auto change = random() % 6; change > 0; --change) {
        const std::size_t at = random() % text.size();
        switch (random() % 3) {
        case 0:
            text[at] = static_cast<char>(1 + random() % 255);
            break;
        case 1:
            text.erase(at, random() % 20);
            break;
        default:
            text.insert(at, text.substr(at / 2, random() % 30));
        }
    }
    return text.empty() ? "x" : text;
}

} // namespace

TEST(Stress, RelaysTenThousandInOrderOverOneConnectionInFlatMemory) {
    constexpr int total = 10000;
    constexpr int window = 100;
    Company company;
    company.setup.configuration["log"]["level"] = 30;
    company.startDaemon();
    long residentAfterFirstThousand = 0;
    for (int sent = 0; sent < total;) {
        for (const int end = sent + window; sent < end; ++sent) {
            company.daemon->sendDatagram(checkIn("m1/x", sent));
        }
        ASSERT_EQ(company.subscriber.payloads(static_cast<std::size_t>(sent)).size(),
                  static_cast<std::size_t>(sent));
        if (residentAfterFirstThousand == 0 && sent >= 1000) {
            residentAfterFirstThousand = residentKiB(company.daemon->program().pid());
        }
    }
    const long growthKiB =
        residentKiB(company.daemon->program().pid()) - residentAfterFirstThousand;
    RecordProperty("growthKiB", std::to_string(growthKiB));
    EXPECT_LT(growthKiB, 256);

    int number = 0;
    std::set<int> connections;
    for (const Json::Value& request : company.cloud.requests()) {
        connections.insert(request["connection"].asInt());
    }
    EXPECT_EQ(connections.size(), 1U);
    for (const std::string& payload : company.subscriber.payloads()) {
        ASSERT_EQ(parsed(payload)["result"]["number"], ++number);
    }
    EXPECT_EQ(company.daemon->program().stop(), 0);
}

TEST(Stress, AnswersHostileDatagramsWithOneRecordEach) {
    constexpr std::size_t total = 3000;
    Company company;
    company.setup.configuration["log"]["level"] = 30;
    company.startDaemon();
    std::mt19937 random(20261121);
    for (std::size_t sent = 0; sent < total; ++sent) {
        company.daemon->sendDatagram(mutated(random));
        if (sent % 50 == 0) {
            ASSERT_TRUE(company.daemon->waitForRecord("Z ERROR ", sent + 1)) << sent;
        }
    }
    EXPECT_TRUE(company.daemon->waitForRecord("Z ERROR ", total));
    EXPECT_EQ(occurrences(company.daemon->log(), "Z ERROR "), total);
    EXPECT_TRUE(company.cloud.requests().empty());
    EXPECT_EQ(company.daemon->program().stop(), 0);
}
