#include "common/Memory.h"

#include <malloc.h>

void fixAllocatorThreshold() {
    mallopt(M_MMAP_THRESHOLD, 256 * 1024);
}

void releaseFreeMemory() {
    malloc_trim(0);
}
