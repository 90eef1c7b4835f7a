// The doctor's findings about a log.
#include "checks/RecentErrors.h"
#include "checks/Clock.h"
#include "host/Text.h"

#include <gtest/gtest.h>

#include <openssl/x509_vfy.h>

namespace {

constexpr std::time_t tenOClock = 1795255200; // 2026-11-21 10:00:00Z
constexpr std::time_t anHour = 3600;

const std::string start = "2026-11-21T10:00:00.000Z INFO Lora VEYRA Server started, version 1\n";
const std::string stop = "2026-11-21T10:00:09.000Z INFO Shutdown signal received 15\n";
const std::string refused = "2026-11-21T10:00:05.000Z ERROR POST failed CODE:401 BODY:[no]\n"
                            "2026-11-21T10:00:05.000Z ERROR Curl call failed m1/x\n";
const std::string success = "2026-11-21T10:00:06.000Z TRACE Curl Response {}\n";
const std::string rebuilt =
    "2026-11-21T10:00:01.000Z DEBUG MQTT disconnected NET: 0 VEYRA: 1 Connected: 0 Keepalive: ";

struct Example {
    const char* text;
    const char* expected;
};

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

Findings judged(const std::string& log, std::time_t now = tenOClock + 30, RecentFacts facts = {}) {
    facts.now = now;
    return judgeRecentErrors(facts, readLogHistory(log, now));
}

} // namespace

TEST(RecentErrors, CountsErrorsSinceTheLastStartAndQuotesTheLastOne) {
    const Finding finding = judged(start + refused + stop + start + refused + refused).front();
    EXPECT_EQ(finding.id, "errors.request-refused");
    EXPECT_TRUE(
        contains(finding.cause, "2 failed requests, the last at 2026-11-21 10:00:05Z: \"POST"))
        << finding.cause;
    EXPECT_TRUE(contains(finding.fix, "fingerprint"));
    EXPECT_EQ(finding.facts["faultsSinceStart"], 2);
}

TEST(RecentErrors, AreNotReportedWhenTheyAreOverOrNormal) {
    EXPECT_EQ(judged(start + refused, tenOClock + 604).front().id, "errors.request-refused");
    EXPECT_EQ(judged(start + refused, tenOClock + 605).front().outcome, Outcome::OK);
    EXPECT_EQ(judged(start + refused, tenOClock + 605).front().facts["faultsSinceStart"], 1);
    EXPECT_EQ(judged(start + refused + success).front().outcome, Outcome::OK);
    const std::string other = "2026-11-21T10:00:05.000Z ERROR x\n";
    EXPECT_EQ(judged(start + other + success).front().id, "errors.other");
    EXPECT_EQ(judged(start + rebuilt + "101.\n").front().outcome, Outcome::OK);
    EXPECT_EQ(judged(start + rebuilt + "101.\n" + rebuilt + "101.\n").front().id,
              "errors.link-rebuilt");
    EXPECT_EQ(judged(start + rebuilt + "30001.\n").front().id, "errors.link-rebuilt");
}

TEST(RecentErrors, AreClassifiedByTheTextsOfTheRecords) {
    const Example cases[] = {
        {"ERROR Exception caught during CURL call: x", "errors.locked"},
        {"ERROR Expected JSON object x", "errors.invalid-datagram"},
        {"ERROR MQTT Impossible to connect x", "errors.broker-rejected"},
        {"ERROR File x Line 284: Unable to bind socket", "errors.port-in-use"},
        {"ERROR x", "errors.other"},
        {"WARNING x", ""},
        {"ERROR Curl call failed x", ""},
    };
    for (const auto& [record, id] : cases) {
        const std::string line = "2026-11-21T10:00:05.000Z " + std::string(record) + "\n";
        EXPECT_EQ(judged(start + line).front().id, id);
        EXPECT_EQ(judged(start + line, tenOClock + 4).front().id, "")
            << "a record with a time in the future";
    }
}

TEST(RecentErrors, AreNotFoundInQuotedDatagrams) {
    const std::string quoting =
        "2026-11-21T10:00:05.000Z TRACE Parse upstream message [x failed CODE: Circuit is broken]\n"
        "    ERROR CURL call to Server failed\n"
        "2026-11-21T10:00:06.000Z INFO x failed CODE: Circuit is broken\n";
    EXPECT_EQ(judged(start + quoting).front().outcome, Outcome::OK);
    const std::string invalid =
        "2026-11-21T10:00:05.000Z ERROR Failed to parse JSON Exception caught during CURL call\n";
    EXPECT_EQ(judged(start + invalid).front().id, "errors.invalid-datagram");
}

TEST(RecentErrors, AreStillReportedForRefusedRequestsAfterAReply) {
    RecentFacts facts;
    facts.replyWasSeen = true;
    const std::string failed = "2026-11-21T10:00:05.000Z ERROR CURL call to Server failed - x\n";
    EXPECT_EQ(judged(failed, tenOClock + 30, facts).front().outcome, Outcome::OK);
    EXPECT_EQ(judged(refused, tenOClock + 30, facts).front().outcome, Outcome::BAD);
}

TEST(RecentErrors, NameARemedyForEachStatus) {
    const Example cases[] = {{"401", "fingerprint"},
                             {"403", "fingerprint"},
                             {"404", "API prefix"},
                             {"429", "number of requests"},
                             {"422", "rejects the data"},
                             {"500", "operator of the cloud"},
                             {"204", "only the statuses 200 and 201"}};
    for (const auto& [status, fix] : cases) {
        const std::string record =
            "2026-11-21T10:00:05.000Z ERROR POST failed CODE:" + std::string(status) + " BODY:[]\n";
        EXPECT_TRUE(contains(judged(start + record).front().fix, fix)) << status;
    }
}

TEST(RecentErrors, TellHowLongTheCircuitIsOpen) {
    const auto dropped = [](const std::string& backoffMs) {
        return "2026-11-21T10:00:05.000Z WARNING Circuit is broken, backoff " + backoffMs + " ms\n";
    };
    EXPECT_TRUE(
        contains(judged(dropped("30000")).front().cause, "open until 2026-11-21 10:00:35Z"));
    EXPECT_EQ(judged(dropped("30000"), tenOClock + 35).front().id, "errors.dropped");
    const std::string wrapped = judged(dropped("18446744073709551615")).front().cause;
    EXPECT_TRUE(contains(wrapped, "open until 2026-11-21 11:00:05Z"));
}

TEST(RecentErrors, ReportARunThatEndedWithoutAStopRecord) {
    EXPECT_EQ(judged(start + start).front().id, "errors.ended-without-stop");
    EXPECT_EQ(judged(start + stop + start).front().outcome, Outcome::OK);
    EXPECT_EQ(judged(start + start, tenOClock + anHour).front().outcome, Outcome::OK);
    RecentFacts rebooted;
    rebooted.bootedAt = tenOClock + 10;
    EXPECT_EQ(judged(start + start, tenOClock + 30, rebooted).front().outcome, Outcome::OK);
}

TEST(LogHistory, ForgetsThePreviousRunEvenIfTheStartWasNotRecorded) {
    EXPECT_EQ(readLogHistory(refused, tenOClock + 30, tenOClock).events.size(), 1U);
    EXPECT_TRUE(readLogHistory(refused, tenOClock + 30, tenOClock + 20).events.empty());
    const std::string later = "2026-11-21T10:00:25.000Z DEBUG MQTT - Connected\n";
    EXPECT_TRUE(readLogHistory(refused + later, tenOClock + 30, tenOClock + 20).events.empty());
    const std::string beforeAndAtTheStart = rebuilt + "101.\n" + refused;
    EXPECT_EQ(readLogHistory(beforeAndAtTheStart, tenOClock + 30, tenOClock + 5).events.size(), 1U);
}

TEST(LogHistory, CountsStartsWithoutAStopBeforeThem) {
    EXPECT_EQ(readLogHistory(start + start + start, tenOClock + 30).recentStarts, 3);
    EXPECT_EQ(readLogHistory(start + start + start, tenOClock + anHour).recentStarts, 0);
    EXPECT_EQ(readLogHistory(start + stop + start + stop, tenOClock + 30).recentStarts, 1);
    EXPECT_TRUE(readLogHistory(start + stop, tenOClock + 30).isStopped);
    const std::string zeros(3, '\0'); // a power failure can leave them
    EXPECT_TRUE(readLogHistory(start + zeros + stop, tenOClock + 30).isStopped);
}

TEST(Clock, IsComparedWithTheCloudOrWithTheCertificate) {
    HttpAnswer cloud;
    EXPECT_EQ(judgeClock(1333333333, cloud).id, "clock.not-set");
    EXPECT_EQ(judgeClock(4102444801, cloud).id, "clock.not-set");
    EXPECT_EQ(judgeClock(tenOClock, cloud).id, "clock.no-reference");
    cloud.verifyResult = X509_V_ERR_CERT_NOT_YET_VALID;
    EXPECT_EQ(judgeClock(tenOClock, cloud).id, "clock.wrong");
    cloud.dateTaken = tenOClock;
    cloud.date = 1;
    EXPECT_EQ(judgeClock(tenOClock, cloud).outcome, Outcome::UNKNOWN) << "not a usable date";
    cloud.date = tenOClock + 60;
    EXPECT_EQ(judgeClock(tenOClock, cloud).outcome, Outcome::OK);
    cloud.date = tenOClock + 61;
    EXPECT_TRUE(contains(judgeClock(tenOClock, cloud).cause, "61 seconds behind"));
    EXPECT_EQ(judgeClock(tenOClock, cloud).facts["aheadSeconds"], -61);
    cloud.date = tenOClock - 61;
    EXPECT_TRUE(contains(judgeClock(tenOClock, cloud).cause, "61 seconds ahead"));
}

TEST(Text, ShowsOnlyHarmlessCharacters) {
    const Example cases[] = {
        {"Zürich \xE2\x82\xAC \xF0\x9F\x98\x80", "Zürich \xE2\x82\xAC \xF0\x9F\x98\x80"},
        {"a\x1b[2J\x7f\r\nb", "a?[2J?? b"},
        // a C1 control, a space that does not break, an invisible character
        {"\xC2\x9B\xC2\xA0\xEF\xBB\xBF", "???"},
        {"\xFF\xC0\xAF\xED\xA0\x80\xE2\x82", "????????"},
        // a sequence that is too long, a character that changes the direction of writing
        {"\xE0\x82\x80\xD8\x9C\xE2\x81\xA6\xE2\x81\xA9", "??????"},
        {"\xF0\x82\x80\x80\xF4\x90\x80\x80", "????????"},
        {"\u2000\u200F\u2028\u202F\u205F\u206F\u1680\u3000\u3164\uFFA0", "??????????"},
    };
    for (const auto& [text, shown] : cases) {
        EXPECT_EQ(printable(text), shown);
    }
    EXPECT_EQ(findInvalidUtf8("ab\xFF"), 2U);
    EXPECT_EQ(masked("https://user:p@ss@host/api"), "https://***@host/api");
    EXPECT_EQ(masked("user:pass@host"), "***@host");
}
