#include "kelvane_vfs/process.h"

#include <malloc.h>

// Larger blocks go back to the system when they are freed, and twice as much free memory may stay at the end of a heap:
// what a read or a write takes stays below, what a long listing takes is above.
void tuneHeap() {
    constexpr int largestKeptBlock = 1 << 19;
    mallopt(M_MMAP_THRESHOLD, largestKeptBlock);
    mallopt(M_TRIM_THRESHOLD, 2 * largestKeptBlock);
}
