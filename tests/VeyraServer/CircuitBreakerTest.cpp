#include "VeyraServer/CircuitBreaker.h"
#include "support/Fakes.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

void fail(CircuitBreaker& breaker, int times) {
    for (int i = 0; i < times; ++i) {
        breaker.requestFailed();
    }
}

// The open period that the next failure starts: `wantedMs` and up to 999 ms of jitter.
void expectOpenPeriod(CircuitBreaker& breaker, std::uint64_t wantedMs) {
    breaker.requestFailed();
    EXPECT_GE(breaker.openUntilMs - fakeNowMs, wantedMs);
    EXPECT_LE(breaker.openUntilMs - fakeNowMs, wantedMs + 999);
}

} // namespace

TEST(CircuitBreaker, OpensAtTheThresholdAndDoublesUntilTheCeiling) {
    CircuitBreaker breaker{10, 5000, 320000};
    fail(breaker, 9);
    EXPECT_TRUE(breaker.allowsRequest());
    for (const unsigned ms : {5000U, 10000U, 20000U, 40000U, 80000U, 160000U, 320000U, 320000U}) {
        expectOpenPeriod(breaker, ms);
        EXPECT_FALSE(breaker.allowsRequest());
    }
    CircuitBreaker passing{1, 3000, 320000};
    fail(passing, 20);
    EXPECT_EQ(passing.backoffMs, 384000U) << "the ceiling stops doubling only";
    CircuitBreaker fixed{1, 1, 1};
    fail(fixed, 3);
    EXPECT_EQ(fixed.backoffMs, 1U);
}

TEST(CircuitBreaker, RefusesAtTheInstantItReopens) {
    CircuitBreaker breaker{1, 5000, 320000};
    fail(breaker, 1);
    fakeNowMs = breaker.openUntilMs;
    EXPECT_FALSE(breaker.allowsRequest());
    ++fakeNowMs;
    EXPECT_TRUE(breaker.allowsRequest());
}

TEST(CircuitBreaker, JitterIsUpToASecond) {
    std::uint64_t least = 1000;
    std::uint64_t most = 0;
    for (int i = 0; i < 1000; ++i) {
        CircuitBreaker breaker{1, 0, 0};
        fail(breaker, 1);
        least = std::min(least, breaker.openUntilMs - fakeNowMs);
        most = std::max(most, breaker.openUntilMs - fakeNowMs);
    }
    EXPECT_LT(least, 50U);
    EXPECT_GT(most, 950U);
    EXPECT_LT(most, 1000U);
}

TEST(CircuitBreaker, SuccessClosesItAndStartsOverFrom5000) {
    CircuitBreaker breaker{2, 1, 320000};
    fail(breaker, 5);
    breaker.requestSucceeded();
    fail(breaker, 1);
    EXPECT_TRUE(breaker.allowsRequest());
    expectOpenPeriod(breaker, 5000);
}
