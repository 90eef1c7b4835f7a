// The decisions of the broker link's supervision, from times of the monotonic clock in ms. Pure
// functions.
#pragma once

#include <cstdint>

// True when the last keepalive went out more than 5000 ms ago.
bool keepaliveIsDue(std::uint64_t nowMs, std::uint64_t lastSentMs);

// True when there is a connected client that heard its own keepalive within the last 30000 ms. A
// clock reading not later than the last keepalive counts as healthy.
bool linkIsHealthy(bool clientConnected, std::uint64_t nowMs, std::uint64_t lastHeardMs);
