// The root of the tree and the tree's life: made before the first file-system request, dropped as a whole when it is
// too old, released after the last request.
#pragma once

#include "cache/dir_entry.h"

// The root; null before DirInit and after DirDestroy.
extern DirEntry* dirEntryTop;

// Counts the calling functions that hold a record across a request. A request rebuilds its path through the look-up,
// which must not drop the tree that they use; an overdue drop then waits for the next look-up.
extern int recordsInUse;

// Starts the cache: lock, root record (from one attribute request), empty statistics. Takes no lock.
void DirInit();

// Drops the tree and makes another one, with its root listed, when the root listing is more than 60 seconds old and no
// record is in use. Records that were handed out are gone then. The caller holds the lock.
void DirDropOverdue();

// Releases the whole cache and its lock; nothing happens when there is no root. Takes no lock.
void DirDestroy();
