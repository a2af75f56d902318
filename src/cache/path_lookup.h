// From paths to cached records, from local spelling to the service's, and directories into FUSE's filler.
#pragma once

#include "cache/dir_entry.h"
#include "kelvane_vfs/fuse_platform.h"

// The record of the local `path` ("/" is the root; not empty), or null when a component is missing or one
// before the last is no directory. Fetches listings on the way, and drops the whole cache first when the root
// listing is more than 60 seconds old. The record stays the cache's and is good until the next look-up.
// Caller holds the lock.
DirEntry* DirGetEntryUnlocked(const char* path);

// The same with the lock taken around the look-up; to use the record, hold the lock around the call as well.
DirEntry* DirGetEntry(const char* path);

// The path in the service's own spelling: "/" before every name, names that the cache does not know as given,
// the root empty. A heap string that the caller frees; a path of 2048 bytes or more ends the process. Caller
// holds the lock.
char* DirReadOriginalEncodingPathUnlocked(const char* path);

// The same with the lock taken around it.
char* DirReadOriginalEncodingPath(const char* path);

// Hands the children of the directory at `path` to `filler`, in the order in which they came, without "." and ".." and
// without names that the kernel does not take (empty, with a slash, longer than 1024 bytes), which would make it refuse
// the whole listing. 1, or 0 when there is no such directory: then the caller is left holding the lock once more.
int DirRead(const char* path, void* buf, fuse_fill_dir_t filler);
