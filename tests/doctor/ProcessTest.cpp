// The doctor's findings about the daemon's process, from two looks at the process.
#include "checks/Process.h"
#include "host/Daemon.h"

#include <gtest/gtest.h>

namespace {

// A daemon whose main thread was last seen at work `quietMs` ago and has woken up `turns` times
// since then.
struct TwoLooks {
    Look active, now;

    explicit TwoLooks(std::uint64_t turns, std::uint64_t quietMs = standstillMs) {
        active.pid = now.pid = 7;
        active.status.state = now.status.state = 'S';
        active.status.threads = now.status.threads = 3;
        active.socketsAreSeen = now.socketsAreSeen = true;
        now.atMs = quietMs;
        now.status.voluntarySwitches = turns;
    }
    Finding judged() const { return judgeLife({active, now}); }
};

Socket udpSocket(std::uint64_t waitingBytes) {
    Socket socket;
    socket.isOwn = true;
    socket.waitingBytes = waitingBytes;
    return socket;
}

} // namespace

TEST(Process, IsReportedAsWaitingOnlyAfterALongStandstill) {
    EXPECT_EQ(TwoLooks(9, standstillMs - 1).judged().outcome, Outcome::OK);
    const TwoLooks looks(9);
    EXPECT_EQ(looks.judged().id, "alive.waits-for-cloud");
    LifeFacts facts{looks.active, looks.now};
    facts.datagramsAreSeen = false;
    EXPECT_EQ(judgeLife(facts).outcome, Outcome::UNKNOWN);
}

TEST(Process, IsAtWorkWhenItWakesUpOrTakesADatagram) {
    const auto worked = [](std::uint64_t turns, std::uint64_t waitingBefore,
                           std::uint64_t waitingAfter, bool datagramArrived) {
        TwoLooks looks(turns, 250);
        looks.active.sockets = {udpSocket(waitingBefore)};
        looks.now.sockets = {udpSocket(waitingAfter)};
        return wasAtWork(looks.active, looks.now, datagramArrived);
    };
    EXPECT_TRUE(worked(2, 0, 0, false)) << "idle";
    EXPECT_FALSE(worked(1, 0, 0, false)) << "libcurl waits for a response";
    EXPECT_TRUE(worked(1, 900, 300, false)) << "a waiting datagram was taken";
    EXPECT_TRUE(worked(1, 0, 0, true)) << "a datagram arrived and was taken";
    EXPECT_FALSE(worked(1, 300, 900, true)) << "a datagram arrived and waits";
    TwoLooks full(1, 250);
    full.active.sockets = full.now.sockets = {udpSocket(900)};
    full.now.sockets.front().drops = 1;
    EXPECT_FALSE(wasAtWork(full.active, full.now, true)) << "a datagram arrived at a full queue";
    EXPECT_FALSE(wasAtWork(TwoLooks(3, 3000).active, TwoLooks(3, 3000).now, false));
}

TEST(Process, IsDeadlockedOnlyWithEvidence) {
    TwoLooks looks(0);
    EXPECT_EQ(looks.judged().outcome, Outcome::UNKNOWN);
    looks.now.waitsIn = "futex_wait_queue";
    EXPECT_EQ(looks.judged().id, "alive.deadlocked");
    looks.now.waitsIn.clear();
    LifeFacts locked{looks.active, looks.now};
    locked.hasLockRecord = true;
    EXPECT_EQ(judgeLife(locked).id, "alive.deadlocked");
    looks.now.waitsIn = "0"; // hidden by the kernel
    EXPECT_EQ(judgeLife(locked).id, "alive.deadlocked");
    looks.now.waitsIn = "poll_schedule_timeout";
    EXPECT_EQ(judgeLife(locked).outcome, Outcome::UNKNOWN) << "a datagram can forge the record";
    looks.now.blockedIn = "anon_pipe_write";
    EXPECT_EQ(looks.judged().id, "alive.output-blocked");
    looks.now.waitsIn.clear();
    looks.now.atMs = 250;
    EXPECT_EQ(judgeLife(locked).outcome, Outcome::OK);
}

TEST(Process, IsJudgedByItsStateBeforeItsProgress) {
    const struct {
        char state;
        const char* id;
    } cases[] = {{'T', "alive.suspended"},
                 {'t', "alive.traced"},
                 {'D', "alive.in-kernel"},
                 {'Z', "alive.ended"},
                 {0, "alive.ended"}};
    for (const auto& [state, id] : cases) {
        TwoLooks looks(0);
        looks.now.waitsIn = "futex_wait_queue";
        looks.now.status.state = state;
        EXPECT_EQ(looks.judged().id, id);
    }
    TwoLooks traced(0);
    traced.now.status.state = 't';
    traced.now.status.tracerPid = traced.now.status.parentPid = 8;
    EXPECT_EQ(traced.judged().fix.find("kill 8"), std::string::npos) << "it may be a supervisor";
    traced.now.status.tracerPid = 1;
    EXPECT_EQ(traced.judged().fix.find("kill 1"), std::string::npos) << "init";
}

TEST(Process, IsReportedAsNotLinkedUnlessAnotherProblemExplainsIt) {
    TwoLooks looks(5, 250);
    LifeFacts facts{looks.active, looks.now};
    facts.isLinked = false;
    facts.isRejected = true;
    EXPECT_NE(judgeLife(facts).cause.find("VEYRA_SERVER"), std::string::npos);
    facts.brokerIsBad = true;
    EXPECT_EQ(judgeLife(facts).outcome, Outcome::OK);
    looks.now.socketsAreSeen = false;
    EXPECT_EQ(judgeLife(facts).outcome, Outcome::UNKNOWN);
}

TEST(Proxies, TakeTheFirstVariableOfEachName) {
    const std::vector<std::string> environment = {"a=b", "https_proxy=c", "https_proxy=d"};
    EXPECT_EQ(proxiesIn(environment), std::vector<std::string>{"https_proxy=c"});
}

TEST(Sockets, AreAtLoopbackInBothFamilies) {
    EXPECT_TRUE(coversLoopback("0100007F"));
    EXPECT_TRUE(coversLoopback("00000000"));
    EXPECT_TRUE(coversLoopback("0000000000000000FFFF00000100007F"));
    EXPECT_TRUE(coversLoopback("00000000000000000000000000000000"));
    EXPECT_FALSE(coversLoopback("0200007F"));
    EXPECT_FALSE(coversLoopback("00000000000000000000000001000000"));
}
