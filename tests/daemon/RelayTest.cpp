// Datagrams on their way through the built program, with good and with faulty peers.
#include "support/Peers.h"

#include <gtest/gtest.h>

namespace {

struct Relay : testing::Test, Company {
    void send(const std::string& datagram) const { daemon->sendDatagram(datagram); }
};

} // namespace

TEST_F(Relay, SignsRequestsAndPublishesTheAnswers) {
    startDaemon();
    const struct {
        const char* member;
        const char* method;
    } cases[] = {{R"("method":"PUT",)", "PUT"},
                 {R"("method":"GET",)", "GET"},
                 {R"("method":"put",)", "POST"},
                 {R"("method":7,)", "POST"},
                 {"", "POST"}};
    for (const auto& c : cases) {
        send(std::string("{") + c.member +
             R"("path":"m1/gateways/SN1/x","request":{"brantle_serial":"SN1","data":{"id":4}}})");
    }
    const std::vector<std::string> replies = subscriber.payloads(5);
    ASSERT_EQ(replies.size(), 5U);
    const std::vector<Json::Value> requests = cloud.requests();
    for (unsigned i = 0; i < 5; ++i) {
        const Json::Value& request = requests.at(i);
        const std::string method = cases[i].method;
        EXPECT_EQ(request["verdict"], "signature valid") << request;
        EXPECT_EQ(request["method"], method);
        EXPECT_EQ(request["path"], "/api/m1/gateways/SN1/x");
        EXPECT_EQ(request["body"].asString(), method == "GET" ? "" : "{\"data\":{\"id\":4}}\n");

        const Json::Value reply = parsed(replies[i]);
        EXPECT_EQ(reply["method"], i < 2 ? method : i == 2 ? "put" : "POST");
        EXPECT_EQ(reply["path"], "m1/gateways/SN1/x");
        EXPECT_EQ(reply["timestamp"], request["headers"]["X-API-TIMESTAMP"]);
        EXPECT_EQ(reply["result"]["number"].asUInt(), i + 1);
        EXPECT_EQ(replies[i].find(R"({"method":")"), 0U) << "keys in ascending order";
    }
}

TEST_F(Relay, ReactsToEveryKindOfAnswer) {
    startDaemon();
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
        {"status 404", false, "ERROR POST failed CODE:404 BODY:[{"},
        {"gzip", true, "POST code: 200 response:[{"},
        {"status 500", false, "ERROR POST failed CODE:500 BODY:[{"},
        {"redirect", true, "POST code: 200 response:[{"},
        {"cut", false, "ERROR CURL call to Server failed - "},
        {"stall 300", true, "POST code: 200 response:[{"},
    };
    std::size_t relayed = 0;
    std::size_t failed = 0;
    for (const auto& c : cases) {
        cloud.setFault(c.fault);
        const std::size_t before = occurrences(daemon->log(), c.record);
        send(checkIn("m1/x"));
        EXPECT_TRUE(daemon->waitForRecord(c.record, before + 1)) << c.fault;
        (c.relayed ? relayed : failed) += 1;
        if (c.relayed) {
            const std::vector<std::string> replies = subscriber.payloads(relayed);
            ASSERT_EQ(replies.size(), relayed) << c.fault;
            EXPECT_EQ(parsed(replies.back())["result"].isNull(), c.fault == std::string("text"));
        }
        EXPECT_TRUE(daemon->waitForRecord("ERROR Curl call failed m1/x\n", failed)) << c.fault;
    }
    cloud.setFault("ok");
    send(checkIn("m1/last"));
    EXPECT_EQ(subscriber.payloads(relayed + 1).size(), relayed + 1);
    EXPECT_EQ(occurrences(daemon->log(), "Curl call failed"), failed);
}

TEST(RelayToAStranger, TrustsOnlyTheConfiguredAuthority) {
    Company company("stranger");
    company.startDaemon();
    company.daemon->sendDatagram(checkIn("m1/x"));
    EXPECT_TRUE(company.daemon->waitForRecord("ERROR CURL call to Server failed - SSL "));
    EXPECT_TRUE(company.cloud.requests().empty());
}

TEST_F(Relay, RejectsWhatIsNoRequestWithOneRecordEach) {
    startDaemon();
    const std::string nul("\0", 1);
    const std::string members = "Invalid JSON expected \"path\" and \"request\" members.";
    const std::string good = checkIn("m1/x");
    const struct {
        std::string datagram;
        std::string record;
    } cases[] = {
        {"no json", "Failed to parse JSON no json"},
        {good.substr(0, good.size() - 1), "Failed to parse JSON " + good.substr(0, 40)},
        {" null ", "Invalid JSON was nullValue  null "},
        {"[]", "Expected JSON object []"},
        {"\"text\"", "Expected JSON object \"text\""},
        {R"({"path":"p"})", members},
        {R"({"request":{}})", members},
        {"{}" + nul + good, members},
        {R"({"path":5,"request":{}})", R"(EXCEPTION: Failed to parse JSON [{"path":5,)"},
        {R"({"path":"p","request":null})", R"(EXCEPTION: Failed to parse JSON [{"path":"p",)"},
        {R"({"path":"p","request":[]})", R"(EXCEPTION: Failed to parse JSON [{"path":"p",)"},
        {std::string(3000, '['), "EXCEPTION: Failed to parse JSON [[[["},
        {checkIn("m1/x", 1, 16384), "Failed to parse JSON {\"method\""},
    };
    std::size_t errors = 0;
    for (const auto& c : cases) {
        send(c.datagram);
        ASSERT_TRUE(daemon->waitForRecord("Z ERROR ", ++errors)) << c.datagram;
        const std::string log = daemon->log();
        EXPECT_EQ(log.substr(log.rfind("Z ERROR ") + 8, c.record.size()), c.record);
    }
    send("");
    send(checkIn("m1/full", 1, 16384 - checkIn("m1/full").size()));
    EXPECT_EQ(subscriber.payloads(1).size(), 1U);
    EXPECT_TRUE(daemon->waitForRecord("Parse upstream message 16384 bytes", 2));
    EXPECT_EQ(occurrences(daemon->log(), "Z ERROR "), errors);
}

TEST_F(Relay, LeavesAFailingCloudAloneAfterTenFailures) {
    startDaemon();
    cloud.setFault("status 500");
    for (int i = 1; i <= 12; ++i) {
        send(checkIn("m1/x"));
    }
    EXPECT_TRUE(
        daemon->waitForRecord("WARNING Circuit is broken, too many failed requests, backoff ", 2));
    EXPECT_EQ(cloud.requests().size(), 10U);
    send(R"({"path":5,"request":{}})");
    EXPECT_TRUE(daemon->waitForRecord("WARNING Circuit is broken", 3))
        << "types are looked at after the breaker";
}

TEST_F(Relay, TakesAnIntegerThresholdAsOne) {
    setup.configuration["veyra"]["breakerThreshold"] = 25;
    startDaemon();
    cloud.setFault("status 500");
    send(checkIn("m1/x"));
    send(checkIn("m1/x"));
    EXPECT_TRUE(daemon->waitForRecord("WARNING Circuit is broken"));
    EXPECT_EQ(cloud.requests().size(), 1U);
}

TEST_F(Relay, StaysLockedAfterAnExceptionInACloudCall) {
    startDaemon();
    send(R"({"path":"p","request":{"brantle_serial":{}}})");
    EXPECT_TRUE(daemon->waitForRecord("ERROR Exception caught during CURL call to [https:"));
    EXPECT_TRUE(daemon->waitForRecord("ERROR Curl call failed p\n"));
    send(checkIn("m1/second"));
    EXPECT_TRUE(daemon->waitForRecord("Curl Request " + cloud.baseUrl() + "m1/second"));
    daemon->program().send(SIGTERM);
    EXPECT_EQ(daemon->program().waitForEnd(Deadline(500)), Process::stillRunning);
    EXPECT_EQ(cloud.requests().size(), 0U);
}
