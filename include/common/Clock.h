// The clock and the pauses of the program. A translation unit of its own, so that tests can link a
// fake clock instead. Usable from any thread.
#pragma once

#include <cstdint>

// Milliseconds of the monotonic clock.
std::uint64_t monotonicMillis();

// Pauses the calling thread. A signal that this thread handles ends the pause early.
void sleepMillis(unsigned ms);
