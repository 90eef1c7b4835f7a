// Keeps the upstream loop from calling the cloud while the cloud keeps failing: after `threshold`
// failed requests in a row requests are refused until a backoff has passed, then one is let through
// on trial; the backoff doubles after each further failure. Main thread only.
#pragma once

#include <cstdint>

struct CircuitBreaker {
    std::int32_t threshold;     // consecutive failures that open the circuit
    std::uint64_t backoffMs;    // length of the next open period, before jitter
    std::uint64_t backoffMaxMs; // the backoff stops doubling at or above this
    std::int32_t failureCount = 0;
    std::uint64_t openUntilMs = 0; // monotonic; requests are refused until then; 0: never opened

    // Whether a request may be sent now. A refusal is logged here.
    bool allowsRequest() const;
    void requestFailed();
    void requestSucceeded();
};
