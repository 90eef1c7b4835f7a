#include "VeyraServer/CircuitBreaker.h"
#include "support/FakeClock.h"

#include <gtest/gtest.h>

namespace {

CircuitBreaker breakerOf(int threshold, std::uint64_t backoffMs, std::uint64_t backoffMaxMs) {
    fakeNowMs = 1000;
    return CircuitBreaker{threshold, backoffMs, backoffMaxMs};
}

void fail(CircuitBreaker& breaker, int times) {
    for (int i = 0; i < times; ++i) {
        breaker.requestFailed();
    }
}

// The open period that the next failure starts lies in [wanted, wanted + 999].
void expectOpenPeriod(CircuitBreaker& breaker, std::uint64_t wantedMs) {
    breaker.requestFailed();
    const std::uint64_t periodMs = breaker.openUntilMs - fakeNowMs;
    EXPECT_GE(periodMs, wantedMs);
    EXPECT_LE(periodMs, wantedMs + 999);
}

} // namespace

TEST(CircuitBreaker, OpensAtTheThresholdAndNotBefore) {
    CircuitBreaker breaker = breakerOf(10, 5000, 320000);
    fail(breaker, 9);
    EXPECT_TRUE(breaker.allowsRequest());
    expectOpenPeriod(breaker, 5000);
    EXPECT_FALSE(breaker.allowsRequest());
}

TEST(CircuitBreaker, RefusesAtTheInstantItReopens) {
    CircuitBreaker breaker = breakerOf(1, 5000, 320000);
    fail(breaker, 1);
    fakeNowMs = breaker.openUntilMs;
    EXPECT_FALSE(breaker.allowsRequest());
    ++fakeNowMs;
    EXPECT_TRUE(breaker.allowsRequest());
}

TEST(CircuitBreaker, DoublesUntilTheCeilingAndMayPassIt) {
    CircuitBreaker breaker = breakerOf(10, 5000, 320000);
    fail(breaker, 9);
    for (const std::uint64_t ms :
         {5000U, 10000U, 20000U, 40000U, 80000U, 160000U, 320000U, 320000U}) {
        expectOpenPeriod(breaker, ms);
    }
    CircuitBreaker passing = breakerOf(1, 3000, 320000);
    fail(passing, 20);
    EXPECT_EQ(passing.backoffMs, 384000U);
    CircuitBreaker fixed = breakerOf(1, 5000, 4999);
    fail(fixed, 3);
    EXPECT_EQ(fixed.backoffMs, 5000U);
}

TEST(CircuitBreaker, SuccessClosesItAndStartsOverFrom5000) {
    CircuitBreaker breaker = breakerOf(2, 1, 320000);
    fail(breaker, 5);
    breaker.requestSucceeded();
    EXPECT_TRUE(breaker.allowsRequest());
    fail(breaker, 1);
    EXPECT_TRUE(breaker.allowsRequest());
    expectOpenPeriod(breaker, 5000);
}
