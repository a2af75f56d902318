// JSON replies as trees. A tree consists of some twenty small allocations for each entry of a listing, which are made
// and released together, so they come out of blocks that belong to the thread and not from the heap one by one. cJSON's
// hooks are for the whole process: all that it allocates anywhere comes out of these blocks.
#pragma once

#include <cjson/cJSON.h>

// Parses `text` into a tree, which is valid until the thread's next releaseReply. Returns null when `text` does not
// parse; then there is nothing to release. A thread has one tree at a time: a call while the thread still has one ends
// the process through abort().
const cJSON* parseReply(const char* text);

// Frees the memory of the thread's tree.
void releaseReply();
