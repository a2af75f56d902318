// JSON replies as trees. A tree consists of some twenty small allocations for each entry of a listing, which are made
// together and go together, so they come out of blocks that belong to the thread and not from the heap one by one.
#pragma once

#include <cjson/cJSON.h>

// The tree of a reply, or null (and nothing to release) when `text` does not parse. It lives until the thread's next
// releaseReply; a thread has one tree at a time.
const cJSON* parseReply(const char* text);

// Gives back what the thread's tree takes.
void releaseReply();
