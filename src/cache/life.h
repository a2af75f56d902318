// The life of the cache: its start before the first file-system request, its end after the last. Neither takes the
// lock.
#pragma once

// Starts the cache: lock, root record (from one attribute request), empty statistics.
void DirInit();

// Releases the whole cache and its lock; nothing happens when there is no root.
void DirDestroy();
