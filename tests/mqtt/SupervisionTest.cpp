#include "mqtt/Supervision.h"

#include <gtest/gtest.h>

TEST(Supervision, KeepaliveIsDueAfterMoreThanFiveSeconds) {
    EXPECT_FALSE(keepaliveIsDue(15000, 10000));
    EXPECT_TRUE(keepaliveIsDue(15001, 10000));
    EXPECT_TRUE(keepaliveIsDue(6000, 0)); // never sent
    EXPECT_TRUE(keepaliveIsDue(9999, 10000)) << "a clock that went back sends at once";
}

TEST(Supervision, LinkIsHealthyWhileTheEchoIsYoungerThanThirtySeconds) {
    EXPECT_TRUE(linkIsHealthy(true, 40000, 10000));
    EXPECT_FALSE(linkIsHealthy(true, 40001, 10000));
    EXPECT_TRUE(linkIsHealthy(true, 9000, 10000)) << "the clock went back";
    EXPECT_TRUE(linkIsHealthy(true, 10000, 10000));
    EXPECT_FALSE(linkIsHealthy(false, 10000, 10000));
}
