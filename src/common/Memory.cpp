#include "common/Memory.h"

#include <features.h>

// Only this file calls functions that exist in glibc alone. musl's allocator gives blocks of 128
// KiB and more back to the system as soon as they are freed, and its threshold is fixed, so this
// file does nothing for musl. With another allocator, the process may keep the memory of a large
// response.
#if defined(__GLIBC__) && !defined(__UCLIBC__)

#include <malloc.h>

void fixAllocatorThreshold() {
    mallopt(M_MMAP_THRESHOLD, 256 * 1024);
}

void releaseFreeMemory() {
    malloc_trim(0);
}

#else

void fixAllocatorThreshold() {}

void releaseFreeMemory() {}

#endif
