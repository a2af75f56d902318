// The desktop's side of the sidebar registration, one file per platform.
#pragma once

// A pool for the temporary objects of the calling thread's platform calls, and its release.
void* openTemporaryPool();
void releaseTemporaryPool(void* pool);

// The current user's home directory as UTF-8, empty when it is not known; a heap string that the caller frees.
char* homeDirectory();

// Shows the directory `path` last among the desktop's favourite volumes; failures are silent. Does nothing on
// a platform without such a list.
void insertFavouriteVolume(const char* path);
