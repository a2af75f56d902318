#include "kelvane_vfs/process.h"

#include <malloc.h>

// Blocks of this size or more go back to the system when they are freed, and up to twice as much free memory stays at
// the end of a heap. The buffers of a read or a write are smaller than that, those of a long listing larger.
void tuneHeap() {
    constexpr int largestKeptBlock = 1 << 19;
    mallopt(M_MMAP_THRESHOLD, largestKeptBlock);
    mallopt(M_TRIM_THRESHOLD, 2 * largestKeptBlock);
}
