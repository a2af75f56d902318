// Brings the cache up to date after a change, one entry at a time.
#pragma once

// Splits `path` at its last "/": `*parent` is a new string that the caller frees, `*name` points into `path`. Always
// returns 1.
int DirExtractPathName(const char* path, char** parent, const char** name);

// Asks the service for the attributes of `path` and puts its entry into its parent's table, or takes it out
// when the service no longer has it. Nothing is asked when the parent is not found.
void DirUpdate(const char* path);

// The same from the attribute object `reply` that a write returned, without a request.
void DirUpdateWithResponse(const char* path, const char* reply);
