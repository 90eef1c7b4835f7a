#include "VeyraServer/CircuitBreaker.h"
#include "support/Fakes.h"

#include <gtest/gtest.h>

#include <set>

namespace {

void fail(CircuitBreaker& breaker, int times) {
    for (int i = 0; i < times; ++i) {
        breaker.requestFailed();
    }
}

// The open period that the next failure starts: `wantedMs` and up to 999 ms of jitter.
void expectOpenPeriod(CircuitBreaker& breaker, std::uint64_t wantedMs) {
    std::set<std::uint64_t> jittersMs;
    for (int i = 0; i < 30000; ++i) {
        CircuitBreaker failing = breaker;
        failing.requestFailed();
        jittersMs.insert(failing.openUntilMs - fakeNowMs - wantedMs);
    }
    EXPECT_EQ(jittersMs.size(), 1000U);
    EXPECT_EQ(*jittersMs.rbegin(), 999U);
    breaker.requestFailed();
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
}

TEST(CircuitBreaker, RefusesAtTheInstantItReopens) {
    CircuitBreaker breaker{1, 5000, 320000};
    fail(breaker, 1);
    fakeNowMs = breaker.openUntilMs;
    EXPECT_FALSE(breaker.allowsRequest());
    ++fakeNowMs;
    EXPECT_TRUE(breaker.allowsRequest());
}

TEST(CircuitBreaker, SuccessClosesItAndStartsOverFrom5000) {
    CircuitBreaker breaker{2, 1, 320000};
    fail(breaker, 5);
    breaker.requestSucceeded();
    fail(breaker, 1);
    EXPECT_TRUE(breaker.allowsRequest());
    expectOpenPeriod(breaker, 5000);
}
