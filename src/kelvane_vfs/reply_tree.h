// JSON replies as trees. A tree is some twenty small allocations for each entry of a listing, all released together, so
// each thread has an arena for its tree. cJSON's hooks are process-wide: all that it allocates comes from an arena.
#pragma once

#include <cjson/cJSON.h>

// Parses `text` into a tree, which is valid until the thread's next releaseReply. Returns null when `text` does not
// parse; then there is nothing to release. A thread has one tree at a time: a call while the thread still has one ends
// the process through abort().
const cJSON* parseReply(const char* text);

// Frees the thread's arena.
void releaseReply();
