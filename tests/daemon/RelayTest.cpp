// Datagrams on their way through the built program, with good and with faulty peers.
#include "support/Company.h"

#include <gtest/gtest.h>

#include <csignal>

TEST(Relay, SignsRequestsAndPublishesTheAnswers) {
    Company company;
    company.startReadyDaemon();
    const struct {
        const char* member;
        const char* replied;
        const char* sent;
    } cases[] = {{R"("method":"PUT",)", "PUT", "PUT"},
                 {R"("method":"GET",)", "GET", "GET"},
                 {R"("method":"put",)", "put", "POST"},
                 {R"("method":7,)", "POST", "POST"},
                 {"", "POST", "POST"}};
    for (const auto& c : cases) {
        company.send(std::string("{") + c.member +
                     R"("path":"m1/SN1/x","request":{"brantle_serial":"SN1","data":{"id":4}}})");
    }
    const std::vector<std::string> replies = company.replies(5);
    ASSERT_EQ(replies.size(), 5U);
    for (unsigned i = 0; i < 5; ++i) {
        const Json::Value request = company.requests().at(i);
        EXPECT_EQ(request["verdict"], "signature valid") << request;
        EXPECT_EQ(request["method"], cases[i].sent);
        EXPECT_EQ(request["path"], "/api/m1/SN1/x");
        EXPECT_EQ(request["headers"]["X-API-SERIAL"], "SN1");
        EXPECT_EQ(request["body"].asString(), i == 1 ? "" : "{\"data\":{\"id\":4}}\n");
        const Json::Value reply = parsed(replies[i]);
        EXPECT_EQ(reply["method"], cases[i].replied);
        EXPECT_EQ(reply["path"], "m1/SN1/x");
        EXPECT_EQ(reply["timestamp"], request["headers"]["X-API-TIMESTAMP"]);
        EXPECT_EQ(reply["result"]["number"].asUInt(), i + 1);
        EXPECT_EQ(replies[i].find(R"({"method":")"), 0U) << "keys in ascending order";
    }
}

TEST(Relay, ReactsToEveryKindOfAnswer) {
    Company company;
    company.startReadyDaemon();
    const struct {
        const char* fault;
        bool relayed;
        const char* record;
    } cases[] = {
        {"status 201", true, "POST code: 201 response:[{"},
        {"status 202", false, "ERROR POST failed CODE:202 BODY:[{"},
        {"text", true, "POST code: 200 Unable parse text as JSON [ok]"},
        {"status 204", false, "ERROR POST failed CODE:204 BODY:[]"},
        {"nul", true, "POST code: 200 response:[{"},
        {"status 500", false, "ERROR POST failed CODE:500 BODY:[{"},
        {"gzip", true, "POST code: 200 response:[{"},
        {"redirect", true, "POST code: 200 response:[{"},
        {"cut", false, "ERROR CURL call to Server failed - "},
        {"stall 300", true, "POST code: 200 response:[{"},
    };
    std::size_t relayed = 0;
    std::size_t failed = 0;
    for (const auto& c : cases) {
        company.setFault(c.fault);
        const std::size_t before = occurrences(company.log(), c.record);
        company.send(checkIn("m1/x"));
        EXPECT_TRUE(company.logged(c.record, before + 1)) << c.fault;
        (c.relayed ? relayed : failed) += 1;
        EXPECT_TRUE(company.logged("ERROR Curl call failed m1/x\n", failed)) << c.fault;
        const std::vector<std::string> replies = company.replies(relayed);
        ASSERT_EQ(replies.size(), relayed) << c.fault;
        EXPECT_TRUE(!c.relayed ||
                    parsed(replies.back())["result"].isNull() == (c.fault == std::string("text")))
            << c.fault;
    }
    EXPECT_EQ(occurrences(company.log(), "Curl call failed"), failed);
}

TEST(Relay, TrustsOnlyTheConfiguredAuthority) {
    Company company("stranger");
    company.startReadyDaemon();
    company.send(checkIn("m1/x"));
    EXPECT_TRUE(company.logged("ERROR CURL call to Server failed - SSL "));
    EXPECT_TRUE(company.requests().empty());
}

TEST(Relay, RejectsWhatIsNoRequestWithOneRecordEach) {
    Company company;
    company.startReadyDaemon();
    const std::string members = R"(Invalid JSON expected "path" and "request" members.)";
    const std::string good = checkIn("m1/x");
    const std::pair<std::string, std::string> cases[] = {
        {"no json", "Failed to parse JSON no json"},
        {" null ", "Invalid JSON was nullValue  null "},
        {"[]", "Expected JSON object []"},
        {R"({"path":"p"})", members},
        {std::string("{}\0", 3) + good, members},
        {R"({"path":5,"request":{}})", R"(EXCEPTION: Failed to parse JSON [{"path":5,)"},
        {R"({"path":"p","request":null})", R"(EXCEPTION: Failed to parse JSON [{"path":"p",)"},
        {std::string(3000, '['), "EXCEPTION: Failed to parse JSON [[[["},
        {checkIn("m1/x", 1, 16384), "Failed to parse JSON {\"method\""},
    };
    std::size_t errors = 0;
    for (const auto& [datagram, record] : cases) {
        company.send(datagram);
        ASSERT_TRUE(company.logged("Z ERROR ", ++errors)) << datagram;
        const std::string log = company.log();
        EXPECT_EQ(log.find(record, log.rfind("Z ERROR ")), log.rfind("Z ERROR ") + 8) << record;
    }
    company.send("");
    company.send(checkIn("m1/full", 1, 16384 - checkIn("m1/full").size()));
    EXPECT_EQ(company.replies(1).size(), 1U);
    EXPECT_TRUE(company.logged("Parse upstream message 16384 bytes", 2));
}

TEST(Relay, LeavesAFailingCloudAlone) {
    for (const unsigned threshold : {10U, 1U}) {
        Company company;
        if (threshold == 1) {
            company.configuration["veyra"]["breakerThreshold"] = 25; // any integer counts as 1
        }
        company.startReadyDaemon();
        company.setFault("status 500");
        for (unsigned i = 0; i < threshold; ++i) {
            company.send(checkIn("m1/x"));
        }
        company.send(R"({"path":5,"request":{}})"); // types are looked at after the breaker
        EXPECT_TRUE(
            company.logged("WARNING Circuit is broken, too many failed requests, backoff ", 1));
        EXPECT_EQ(company.requests().size(), threshold);
    }
}

TEST(Relay, StaysLockedAfterAnExceptionInACloudCall) {
    Company company;
    company.startReadyDaemon();
    company.send(R"({"path":"p","request":{"brantle_serial":{}}})");
    EXPECT_TRUE(company.logged("ERROR Exception caught during CURL call to [https:"));
    EXPECT_TRUE(company.logged("ERROR Curl call failed p\n"));
    company.send(checkIn("m1/second"));
    EXPECT_TRUE(company.logged("Curl Request https:", 2));
    EXPECT_EQ(company.daemon->end(SIGTERM, Deadline(500)), Process::stillRunning);
    EXPECT_TRUE(company.requests().empty());
}
