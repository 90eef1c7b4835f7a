#include "VeyraServer/CircuitBreaker.h"
#include "support/Fakes.h"

#include <gtest/gtest.h>

#include <set>

namespace {

constexpr std::uint64_t ceilingMs = 320000;

void fail(CircuitBreaker& breaker, int times) {
    for (int i = 0; i < times; ++i) {
        breaker.requestFailed();
    }
}

// How long the next failure keeps the circuit open, beyond `backoffMs`.
std::uint64_t jitterOfNextFailure(CircuitBreaker& breaker, std::uint64_t backoffMs) {
    breaker.requestFailed();
    return breaker.openUntilMs - fakeNowMs - backoffMs;
}

} // namespace

TEST(CircuitBreaker, DoublesTheBackoffUpToTheCeiling) {
    CircuitBreaker breaker{1, 5000, ceilingMs};
    for (const unsigned ms : {5000U, 10000U, 20000U, 40000U, 80000U, 160000U, 320000U, 320000U}) {
        EXPECT_LT(jitterOfNextFailure(breaker, ms), 1000U);
    }
}

TEST(CircuitBreaker, DoublesUntilTheBackoffReachesTheCeiling) {
    CircuitBreaker breaker{1, 3000, ceilingMs};
    fail(breaker, 20);
    EXPECT_EQ(breaker.backoffMs, 384000U);
}

TEST(CircuitBreaker, AddsJitterOfUpTo999Ms) {
    std::set<std::uint64_t> jittersMs;
    for (int i = 0; i < 30000; ++i) {
        CircuitBreaker breaker{1, 5000, ceilingMs};
        jittersMs.insert(jitterOfNextFailure(breaker, 5000));
    }
    EXPECT_EQ(jittersMs.size(), 1000U);
    EXPECT_EQ(*jittersMs.rbegin(), 999U);
}

TEST(CircuitBreaker, AllowsATrialAfterTheBackoff) {
    CircuitBreaker breaker{1, 5000, ceilingMs};
    fail(breaker, 1);
    fakeNowMs = breaker.openUntilMs;
    EXPECT_FALSE(breaker.allowsRequest());
    ++fakeNowMs;
    EXPECT_TRUE(breaker.allowsRequest());
}

TEST(CircuitBreaker, StartsOverAfterASuccess) {
    CircuitBreaker breaker{2, 1, ceilingMs};
    fail(breaker, 5);
    breaker.requestSucceeded();
    fail(breaker, 1);
    EXPECT_TRUE(breaker.allowsRequest());
    EXPECT_LT(jitterOfNextFailure(breaker, 5000), 1000U) << "whatever backoff is configured";
}
