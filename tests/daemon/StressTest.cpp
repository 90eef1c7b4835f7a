// Many datagrams, and hostile ones.
#include "support/Company.h"

#include <gtest/gtest.h>

#include <csignal>
#include <random>
#include <set>

namespace {

#ifdef VEYRA_SANITIZED // sanitizers keep freed memory for a while
constexpr long growthKiB = 256 * 1024;
#else
constexpr long growthKiB = 256;
#endif

// A datagram with some bytes changed, lost or doubled; its "path" member is always lost.
std::string mutated(std::mt19937& random) {
    std::string text = checkIn("m1/x", 1, random() % 400);
    text.replace(text.find("path"), 1, "q");
    for (auto change = random() % 6; change > 0; --change) {
        const std::size_t at = random() % text.size();
        text[at] = static_cast<char>(1 + random() % 255);
        text.erase(random() % text.size(), random() % 20);
        text.insert(random() % (text.size() + 1), text.substr(text.size() / 2, random() % 30));
    }
    return text;
}

} // namespace

TEST(Stress, RelaysTenThousandInOrderOverOneConnectionInFlatMemory) {
    constexpr unsigned total = 10000;
    constexpr unsigned window = 100;
    Company company;
    company.startReadyDaemon();
    long residentAfterFirstThousand = 0;
    for (unsigned sent = 0; sent < total;) {
        for (const unsigned end = sent + window; sent < end; ++sent) {
            company.send(checkIn("m1/x", static_cast<int>(sent)));
        }
        ASSERT_EQ(company.replies(sent).size(), sent);
        if (sent == 1000) {
            residentAfterFirstThousand = company.daemon->statusValue("VmRSS:");
        }
    }
    EXPECT_LT(company.daemon->statusValue("VmRSS:"), residentAfterFirstThousand + growthKiB);
    std::set<int> connections;
    for (const Json::Value& request : company.requests()) {
        connections.insert(request["connection"].asInt());
    }
    EXPECT_EQ(connections.size(), 1U);
    int id = 0;
    for (const std::string& reply : company.replies()) {
        ASSERT_EQ(parsed(reply)["result"]["id"], id++);
    }
}

TEST(Stress, AnswersHostileDatagramsWithOneRecordEach) {
    constexpr std::size_t total = 3000;
    Company company;
    company.startReadyDaemon();
    std::mt19937 random(20261121);
    for (std::size_t sent = 1; sent <= total; ++sent) {
        company.send(mutated(random));
        if (sent % 50 == 0) {
            ASSERT_TRUE(company.logged("Z ERROR ", sent)) << sent;
        }
    }
    EXPECT_EQ(occurrences(company.log(), "Z ERROR "), total);
    EXPECT_TRUE(company.requests().empty());
    EXPECT_EQ(company.daemon->end(SIGTERM), 0);
}
