// Time as the program measures it. A translation unit of its own, so that tests link a fake clock
// in its place. Usable from any thread.
#pragma once

#include <cstdint>

// Milliseconds of the monotonic clock.
std::uint64_t monotonicMillis();

// Pauses the calling thread; a signal that the thread handles ends the pause early.
void sleepMillis(unsigned ms);
