// Stops requests to the cloud while the cloud keeps failing. After `threshold` failed requests in a
// row, no request is allowed until a backoff has passed. Then one request is allowed as a trial.
// The backoff doubles after each further failure. Main thread only.
#pragma once

#include <cstdint>

struct CircuitBreaker {
    std::int32_t threshold;     // consecutive failures that open the circuit
    std::uint64_t backoffMs;    // length of the next open period, before jitter
    std::uint64_t backoffMaxMs; // the backoff doubles only while it is below this value
    std::int32_t failureCount = 0;
    std::uint64_t openUntilMs = 0; // monotonic; no request is allowed until then; 0: never opened

    // Whether a request may be sent now. Logs a warning if not.
    bool allowsRequest() const;
    void requestFailed();
    void requestSucceeded();
};
