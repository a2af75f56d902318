#include "cache/refresh.h"

#include "cache/path_lookup.h"
#include "cache/remote_fetch.h"
#include "cache/root.h"
#include "kelvane_vfs/not_null.h"

#include <cstdlib>
#include <cstring>

namespace {

// One bit decides, so other file types whose number contains this bit count as directories too.
std::int32_t kindOf(const struct stat& st) {
    return (st.st_mode & S_IFDIR) != 0 ? directoryType : fileType;
}

// Looks the parent of `path` up; `*name` becomes the last component. The caller holds the lock.
DirEntry* findParent(const char* path, const char** name) {
    char* parentPath = nullptr;
    DirExtractPathName(path, &parentPath, name);
    DirEntry* parent = DirGetEntry(parentPath);
    std::free(parentPath);
    return parent;
}

} // namespace

int DirExtractPathName(const char* path, char** parent, const char** name) {
    const char* slash = std::strrchr(path, '/');
    *name = slash != nullptr ? slash + 1 : path;
    *parent = notNull(slash == nullptr || slash == path ? strdup("/") : strndup(path, slash - path));
    return 1;
}

void DirUpdate(const char* path) {
    DirLock();
    const char* name = nullptr;
    DirEntry* parent = findParent(path, &name);
    if (parent != nullptr) {
        struct stat st;
        ++recordsInUse;
        const int found = DirFetchRemoteAttr(path, &st);
        --recordsInUse;
        if (found != 0) {
            DirEntryAdd(parent, name, kindOf(st), &st);
        } else {
            DirEntryDel(parent, name);
        }
    }
    DirUnlock();
}

void DirUpdateWithResponse(const char* path, const char* reply) {
    DirLock();
    const char* name = nullptr;
    DirEntry* parent = findParent(path, &name);
    if (parent != nullptr) {
        struct stat st = {};
        DirParseRemoteAttr(reply, &st);
        setOwner(&st);
        DirEntryAdd(parent, name, kindOf(st), &st);
    }
    DirUnlock();
}
