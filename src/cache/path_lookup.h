// Finds cached records by path, turns paths into the service's spelling, and hands directories to FUSE's filler.
#pragma once

#include "cache/dir_entry.h"
#include "kelvane_vfs/fuse_platform.h"

// The record of the local `path` ("/" is the root; not empty), or null when a component is missing or one before the
// last is no directory. Fetches listings on the way, and drops the whole cache first when the root listing is more than
// 60 seconds old and no record is in use. The record belongs to the cache and is valid until the next look-up. The
// caller holds the lock.
DirEntry* DirGetEntryUnlocked(const char* path);

// The same with the lock taken around the look-up; to use the record, hold the lock around the call as well.
DirEntry* DirGetEntry(const char* path);

// The path in the service's own spelling: "/" before every name; a name that the cache does not know stays as given;
// the root is empty. A heap string that the caller frees; a path of 2048 bytes or more ends the process. The caller
// holds the lock.
char* DirReadOriginalEncodingPathUnlocked(const char* path);

// The same with the lock taken around it.
char* DirReadOriginalEncodingPath(const char* path);

// Hands the children of the directory at `path` to `filler`, in the order in which they came, without "." and ".." and
// without names that the kernel does not take (empty, with a slash, longer than 1024 bytes), which would make it refuse
// the whole listing. Returns 1. Returns 0 when there is no such directory: then the lock is still held once more, and
// the caller releases it.
int DirRead(const char* path, void* buf, fuse_fill_dir_t filler);
