#include "cache/life.h"

#include "cache/dir_entry.h"
#include "cache/remote_fetch.h"
#include "cache/volume_statistics.h"

void DirInit() {
    DirCreateLock();
    struct stat st;
    DirFetchRemoteAttr("/", &st);
    dirEntryTop = DirEntryNew("", directoryType, &st);
    DirForgetVFS();
}

void DirDestroy() {
    if (dirEntryTop == nullptr) {
        return;
    }
    DirEntryFree(dirEntryTop);
    dirEntryTop = nullptr;
    DirDestroyLock();
}
