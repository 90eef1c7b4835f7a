// The doctor's verdicts from tables of facts.
#include "HostChecks.h"
#include "PeerChecks.h"
#include "Settings.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace {

// `wanted`: the outcome, and after a space what the verdict must say.
void expect(const Verdict& verdict, const std::string& wanted) {
    const char* const words[] = {"ok", "bad", "unknown"};
    const std::string text = std::string(words[static_cast<int>(verdict.outcome)]) + " " +
                             verdict.seen + ": " + verdict.cause + ". " + verdict.remedy;
    EXPECT_EQ(text.find(wanted.substr(0, wanted.find(' ') + 1)), 0U) << text << wanted;
    EXPECT_NE(text.find(wanted.substr(wanted.find(' '))), std::string::npos) << text << wanted;
    EXPECT_EQ(text.find("hidden"), std::string::npos) << text;
}

Verdict judged(const std::string& text) {
    Json::Value root;
    return judgeConfiguration({"x.conf", true, 0, text}, root).at(0);
}

Verdict identity(const Json::Value& key, const std::string& uuid) {
    IdentityFacts facts;
    facts.network["gatewayKey"] = key;
    facts.device["uuid"] = uuid;
    facts.device["deviceId"] = "DEVICE";
    return judgeIdentity(facts);
}

// Two looks, 2 s apart, between which the main thread has waited `turns` times.
Verdict life(std::uint64_t turns, const Tail& tail, Look second) {
    Look first = second;
    first.atMs -= 2000;
    first.pid = 7;
    second.switches += turns;
    return judgeAlive(first, second, tail);
}

const std::string uuid = "00112233445566778899aabbccddeeff";
constexpr std::time_t start = 1795255201; // 2026-11-21 10:00:01Z

} // namespace

// What the daemon makes of each value is asked of the daemon's own functions.
TEST(Settings, NamesEachTrapWithItsEffect) {
    const char* const cases[][3] = {
        {"log.level", "null", "bad takes effect as 0: nothing is logged"},
        {"log.level", "\"40\"", "bad aborts"},
        {"log.syslog", "1", "ok x.conf: port 1790"},
        {"udp.veyraPort", "67326", "bad takes effect as 1790"},
        {"udp.veyraPort", "\"1791\"", "bad takes effect as 1790"},
        {"udp.veyraPort", "65535", "ok port 65535"},
        {"udp.port", "1", "ok ignored udp.port"},
        {"lora.level", "1", "ok ignored lora"},
        {"veyra.breakerThreshold", "25", "bad takes effect as 1."},
        {"veyra.breakerThreshold", "\"25\"", "bad takes effect as 10."},
        {"veyra.breakerTime", "0.5", "bad takes effect as 5000."},
        {"veyra.breakerTimeMax", "false", "bad takes effect as 320000."},
        {"veyra", "[1]", "bad aborts"},
        {"mqtt.enabled", "null", "bad ends at once"},
        {"mqtt.host", "\"10.0.0.1\"", "bad takes effect as \"127.0.0.1\""},
        {"mqtt.port", "1884", "bad takes effect as 1883"},
        {"mqtt.password", "\"hidden\"", "bad takes no effect"},
        {"network.veyraServer", "\"https://a:hidden@@b/api\"", "bad run together"},
        {"network.veyraServer", "\"\"", "bad takes effect as \"\": no cloud"},
        {"network.veyraServer", "\"http://cloud/api/\"", "bad no encryption"},
        {"network.veyraServer", "null", "bad takes effect as \"\": no cloud"},
        {"network.gatewaykey", "\"12\"", "bad write network.gatewayKey"},
        {"mqtt.user", "1", "bad write mqtt.username"},
        {"gatewaykey", "1", "bad write network.gatewayKey"},
    };
    for (const auto& [name, value, wanted] : cases) {
        Json::Value root;
        root["network"]["veyraServer"] = "https://cloud/api/";
        root["mqtt"]["enabled"] = true;
        Json::Reader().parse(value, Json::Path(name).make(root));
        expect(judged(Json::FastWriter().write(root)), wanted);
    }
    expect(judged("{\n  \"mqtt\": {\"a\": 1,\n  }\n}"), "bad Line 3, Column 3");
    expect(judged("{\"a\":" + std::string(2000, '[')), "bad deeply");
    expect(judged("[]"), "bad no object");
    expect(judged("{\"a\": 12e-}"), "bad this is not a number");
    Json::Value root;
    expect(judgeConfiguration({"x", false, EACCES, ""}, root).at(0), "unknown as root");
}

TEST(Identity, NamesWhatSignsWrongly) {
    expect(identity(uuid, ""), "ok network.gatewayKey and deviceId, fingerprint 7dadfdf4");
    expect(identity({}, uuid), "ok uuid and deviceId, fingerprint 7dadfdf4");
    expect(identity("key", ""), "bad deviceId alone");
    expect(identity("0011 22", ""), "bad only its end");
    expect(identity(uuid + "00", ""), "bad only its end");
    expect(identity("00000000-0000-0000-0000-000000000000", uuid), "bad placeholder");
    expect(identity(5, uuid), "bad takes its place");
    expect(identity({}, "00112233-4455-6677-8899-aabbccddeeff"), "bad not the one");
    expect(identity({}, "0011"), "bad aborts");
    expect(judgeIdentity({"", true, 0, {}, {}}), "bad counts as missing");
    expect(judgeIdentity({"", false, EACCES, {}, {}}), "unknown as root");
}

TEST(Life, TellsAWedgeFromASilentCloudAndFromWork) {
    const Look good{3000, 7, 3, 100, "", 0, true, true, true, false, false};
    Tail aborted;
    aborted.wedged = true;
    expect(life(20, aborted, good), "ok 3 threads");
    expect(life(0, {}, good), "bad wedged");
    expect(life(2, aborted, good), "bad wedged");
    expect(life(2, {}, good), "bad waits for a cloud");
    expect(life(0, {}, {3000, 7, 3, 100, "", 0, true, true, true, true, false}), "bad -CONT 7");
    expect(life(0, {}, {3000, 7, 1, 100, "", 0, false, false, false, false, false}), "bad starts");
    expect(life(20, {}, {3000, 7, 3, 100, "", 0, true, true, false, false, false}), "bad no conn");
    expect(life(20, {}, {3000, 7, 3, 100, "", 0, true, false, true, false, false}), "bad its port");
    expect(life(20, {}, {3000, 7, 3, 9, "", 0, false, true, true, false, false}),
           "unknown as root");
    expect(life(20, {}, {3000, 8, 3, 100, "", 0, true, true, true, false, false}), "bad anew");
    expect(life(0, {}, {3000, 0, 0, 0, "", 0, false, false, false, false, true}),
           "unknown as root");
}

TEST(Tail, CountsSinceTheLastStart) {
    const std::string log = "2026-11-21T10:00:00.000Z ERROR CURL call to Server failed - x\n"
                            "2026-11-21T10:00:01.000Z INFO Lora VEYRA Server started, version 1\n"
                            "2026-11-21T10:00:03.000Z DEBUG MQTT disconnected NET\n"
                            "y] Circuit is broken\n"
                            "2026-11-21T10:00:04.000Z ERROR POST failed CODE:401 BODY:[]\n";
    expect(
        judgeTail("x", readTail(log, start), start + 9),
        "bad last start: 1 rebuilds of the broker link, last at 2026-11-21 10:00:03Z; 1 request");
    expect(judgeTail("x", readTail(log, start), start + 3600), "ok 1 rebuilds");
    expect(judgeTail("x", readTail(log.substr(0, 70), start), start + 9), "ok 1 requests without");
    const std::string loop = log + log + log + log;
    expect(judgeAlive({}, {}, readTail(loop, start + 100)), "bad 4 starts in 3 minutes");
    expect(judgeAlive({}, {}, readTail(loop, start + 9999)), "bad CODE:401 BODY:[]. mend");
    expect(judgeAlive({}, {}, readTail(loop, start - 9)), "bad not run");
    const std::string stop = log + "2026-11-21T10:00:05.000Z INFO Shutdown signal received 15\n";
    expect(judgeAlive({}, {}, readTail(stop + stop + stop + stop, start + 9)), "bad not run");
}

TEST(Log, IsNeverTakenForWritableUnseen) {
    expect(judgeLog({"x", true, 0, 1 << 20, false, false}), "ok 1 MiB free");
    expect(judgeLog({"x", true, 0, 4096, false, false}), "bad full");
    expect(judgeLog({"x", false, EACCES, 1 << 20, false, false}), "unknown as root");
    expect(judgeLog({"x", true, 0, 1 << 20, true, false}), "bad no syslog");
}

TEST(Port, IsNeverTakenForRightUnseen) {
    expect(judgePort({1790, 7, true, true, 7, "", 3, 0}), "ok daemon's, which lost 3 datagrams");
    expect(judgePort({1790, 7, true, true, 9, "nc", 0, 0}), "bad taken by nc, process 9");
    expect(judgePort({1790, 7, false, false, 0, "", 0, 0}), "unknown as root");
    expect(judgePort({1790, 7, true, false, 0, "", 0, 1791}), "bad listens on 1791");
}

TEST(Clock, IsHeldAgainstTheCloudElseTheCertificateAndSignaturesByTheirAnswer) {
    CloudFacts facts;
    expect(judgeClock(facts, 1333333333), "bad never set");
    expect(judgeClock(facts, start), "unknown tells no time");
    facts.verifyCode = 9; // not yet valid
    expect(judgeClock(facts, start), "bad certificate's dates");
    facts.date = start;
    facts.dateTaken = start - 61;
    expect(judgeClock(facts, start), "bad 61 s behind");
    expect(judgeSignature("p", 404, ""), "unknown says nothing");
}
