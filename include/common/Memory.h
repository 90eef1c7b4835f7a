// Keeps the resident memory constant after a single large response of the cloud. By default the
// allocator raises its threshold to the size of the largest block that was ever freed, and keeps
// freed blocks below the threshold. Main thread only.
#pragma once

#include <cstddef>

// After a response below this size, releaseFreeMemory() is not necessary.
constexpr std::size_t largeBytes = std::size_t{64} * 1024;

// From now on, blocks of 256 KiB and more are returned to the system as soon as they are freed.
void fixAllocatorThreshold();

// Returns all freed memory to the system. Takes milliseconds: call it only after a large response.
void releaseFreeMemory();
