// Extended attributes of cached entries, held in memory only. The entry-level operations expect the caller to
// hold the cache's lock; the path-level ones take it for the look-up alone, so a caller that goes on using
// what they return holds it around the call. The length of a value is not kept: the reader has to know it.
#pragma once

#include "cache/dir_entry.h"

#include <cstddef>

struct DirEntryXAttr {
    char* name;        // copy of the name, released with the record
    char* value;       // copy of the value's bytes
    UT_hash_handle hh; // keyed by the name string that the adder passed, which has to outlive the record
};

// The stored value (owned by the store) of the attribute found for `name` in any spelling, or null.
char* DirEntryGetXAttrInt(DirEntry* entry, const char* name);
void DirEntryRemoveXAttrInt(DirEntry* entry, const char* name);

// Stores a copy of `size` bytes in the place of any attribute found for `name`. `name` itself becomes the
// key: it stays with the caller, alive and unchanged for as long as the attribute is stored.
void DirEntryAddXAttrInt(DirEntry* entry, const char* name, const void* value, std::size_t size);

// The same by path; a path that is not found has no attributes and takes none.
char* DirEntryGetXAttr(const char* path, const char* name);
void DirEntryRemoveXAttr(const char* path, const char* name);
void DirEntryAddXAttr(const char* path, const char* name, const void* value, std::size_t size);
