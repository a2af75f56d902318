// The cache's records: one for every file and directory that the daemon has learnt about, in a tree of hash tables.
// Everything here but the lock itself expects the caller to hold the lock.
#pragma once

#include <cstdint>
#include <ctime>
#include <sys/stat.h>
#include <uthash.h>

struct DirEntryXAttr;

// Entry kinds; only directories have children.
constexpr std::int32_t directoryType = 1;
constexpr std::int32_t fileType = 2;

struct DirEntry {
    char* name;            // one path component as its adder spelled it (owned); the key in the parent's table
    std::int32_t type;     // directoryType, or anything else
    struct stat st;        // what getattr returns
    DirEntry* children;    // table of children; null when none is cached
    time_t fetchTime;      // when the listing was last asked for; 0 = never
    DirEntryXAttr* xattrs; // table of extended attributes; null when there are none
    UT_hash_handle hh;     // place in the parent's table
};

// The cache's one lock. It is recursive: a request made under it asks the cache for the spelling of its path.
// It exists from DirCreateLock to DirDestroyLock, which are for the start and the end of the cache.
void DirCreateLock();
void DirDestroyLock();
void DirLock();
void DirUnlock();

// Makes a record that is in no table yet; name and attributes are copied. The caller owns it until it is
// added.
DirEntry* DirEntryNew(const char* name, std::int32_t type, const struct stat* st);

// Puts a fresh record for `name` last into the children of `dir`, in the place of any child that the
// name-form look-up finds for it, subtree included. Returns the record, or null when `dir` is not a
// directory.
DirEntry* DirEntryAdd(DirEntry* dir, const char* name, std::int32_t type, const struct stat* st);

// Removes and releases the child that the name-form look-up finds for `name`, if there is one.
void DirEntryDel(DirEntry* dir, const char* name);

// Releases `entry` and everything below it. Does not remove `entry` from its parent's table.
void DirEntryFree(DirEntry* entry);

// The child of that name, given or stored in any normalisation form, or null.
DirEntry* DirEntryFindChild(const DirEntry* dir, const char* name);
