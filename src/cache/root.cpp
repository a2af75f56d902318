#include "cache/root.h"

#include "cache/remote_fetch.h"
#include "cache/volume_statistics.h"

DirEntry* dirEntryTop = nullptr;
int recordsInUse = 0;

namespace {

constexpr time_t cacheLifetime = 60;

DirEntry* makeRoot(const char* name) {
    struct stat st;
    DirFetchRemoteAttr("/", &st);
    return DirEntryNew(name, directoryType, &st);
}

} // namespace

void DirInit() {
    DirCreateLock();
    dirEntryTop = makeRoot("");
    DirForgetVFS();
}

void DirDropOverdue() {
    if (recordsInUse != 0 || dirEntryTop->fetchTime == 0 ||
        dirEntryTop->fetchTime + cacheLifetime >= std::time(nullptr)) {
        return;
    }
    DirEntryFree(dirEntryTop);
    dirEntryTop = nullptr;
    dirEntryTop = makeRoot("/");
    DirFetchRemoteDir("/", dirEntryTop);
}

void DirDestroy() {
    if (dirEntryTop == nullptr) {
        return;
    }
    DirEntryFree(dirEntryTop);
    dirEntryTop = nullptr;
    DirDestroyLock();
}
