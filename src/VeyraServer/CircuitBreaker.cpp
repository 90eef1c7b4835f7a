#include "VeyraServer/CircuitBreaker.h"

#include "common/Clock.h"
#include "common/Log.h"

#include <cstdlib>

bool CircuitBreaker::allowsRequest() const {
    if (failureCount < threshold) {
        return true;
    }
    if (openUntilMs != 0 && monotonicMillis() > openUntilMs) {
        return true;
    }
    VEYRA_LOG(WARNING, "Circuit is broken, too many failed requests, backoff %llu ms",
              static_cast<unsigned long long>(openUntilMs - monotonicMillis()));
    return false;
}

void CircuitBreaker::requestFailed() {
    ++failureCount;
    if (failureCount < threshold) {
        return;
    }
    const auto jitterMs = static_cast<std::uint64_t>(std::rand() % 1000);
    openUntilMs = monotonicMillis() + backoffMs + jitterMs;
    // The ceiling only stops further doubling: a doubled value may exceed it.
    if (backoffMs < backoffMaxMs) {
        backoffMs *= 2;
    }
}

void CircuitBreaker::requestSucceeded() {
    failureCount = 0;
    // Kept on purpose: a fixed value instead of the configured one.
    backoffMs = 5000;
}
