// Decides when the broker link needs a keepalive and whether it is healthy. Pure functions of times
// on the monotonic clock, in ms; usable from any thread.
#pragma once

#include <cstdint>

// True when the last keepalive was sent more than 5000 ms ago.
bool keepaliveIsDue(std::uint64_t nowMs, std::uint64_t lastSentMs);

// True when the client is connected and received its own keepalive within the last 30000 ms. Also
// true for a connected client if the clock is not later than the last keepalive.
bool linkIsHealthy(bool clientConnected, std::uint64_t nowMs, std::uint64_t lastHeardMs);
