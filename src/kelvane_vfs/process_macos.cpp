#include "kelvane_vfs/process.h"

// The heap of macOS gives free memory back by itself.
void tuneHeap() {}
