// Attributes and listings from the service: the only place where the cache asks for them. The caller holds the cache's
// lock when `dir` is in the cache.
#pragma once

#include "cache/dir_entry.h"

// Makes the daemon's user and group the owner of what `st` describes: the service sends neither.
void setOwner(struct stat* st);

// Fills the seven attributes that the service sends (size, blocks, mode, links, three times) from the attribute object
// `json`; the rest of `st` stays as it is. Returns 1, or 0 with `st` untouched when `json` does not parse.
int DirParseRemoteAttr(const char* json, struct stat* st);

// Asks for the attributes of the local `path`. Returns 1 with `st` filled; owner and group are the daemon's own.
// Returns 0 with `st` all zeros when the service does not answer with status 200.
int DirFetchRemoteAttr(const char* path, struct stat* st);

// Asks for the listing of the directory at `path` and adds every listed child to `dir`; children that are not listed
// stay. Returns 1, or 0 after a line on standard output when the listing does not parse. Either way the directory
// counts as fetched.
int DirFetchRemoteDir(const char* path, DirEntry* dir);
