// Keeps the resident memory flat when the cloud sends a large answer once. Left to itself the
// allocator moves its threshold up to the largest block that it ever gave, and then keeps what is
// freed below it. Main thread only.
#pragma once

#include <cstddef>

// What is smaller is ordinary and costs nothing here.
constexpr std::size_t largeBytes = std::size_t{64} * 1024;

// From now on blocks of 256 KiB and more go back to the system as soon as they are freed.
void fixAllocatorThreshold();

// Gives all freed memory back to the system. Takes milliseconds: only after something large.
void releaseFreeMemory();
