// The desktop's side of the sidebar registration, one file per platform.
#pragma once

// The calling thread's autorelease pool, where the platform has one.
void* openAutoreleasePool();
void releaseAutoreleasePool(void* pool);

// The current user's home directory as UTF-8, empty when it is not known; a heap string that the caller frees.
char* homeDirectory();

// Shows the directory `path` last among the desktop's favourite volumes; failures are silent. Does nothing on
// a platform without such a list.
void insertFavouriteVolume(const char* path);
