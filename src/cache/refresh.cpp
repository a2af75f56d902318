#include "cache/refresh.h"

#include "cache/path_lookup.h"
#include "cache/remote_fetch.h"
#include "kelvane_vfs/leak_on_purpose.h"
#include "kelvane_vfs/protocol.h"
#include "kelvane_vfs/reply_tree.h"
#include "kelvane_vfs/transport.h"

#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace {

constexpr unsigned long noSetuidFlag = 2;

struct statvfs stbuf = {};

// One bit decides, so the types whose number includes it pass for directories too.
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
    *parent = slash == nullptr || slash == path ? strdup("/") : strndup(path, slash - path);
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
        st.st_uid = getuid();
        st.st_gid = getgid();
        DirEntryAdd(parent, name, kindOf(st), &st);
    }
    DirUnlock();
}

struct statvfs* DirGetVFS() {
    DirLock();
    struct statvfs* result = &stbuf;
    if (stbuf.f_namemax == 0) {
        stbuf = {};
        long status = 0;
        char* reply = getURL("", "action=statvfs", nullptr, nullptr, &status);
        const cJSON* statistics = nullptr;
        // The body of a refusal is not released.
        if (reply != nullptr && status == 200) {
            statistics = parseReply(reply);
            std::free(reply);
        } else {
            leakOnPurpose(reply);
        }
        if (statistics != nullptr) {
            stbuf.f_flag = noSetuidFlag;
            stbuf.f_bsize = requiredInt(statistics, "bsize");
            stbuf.f_frsize = requiredInt(statistics, "frsize");
            stbuf.f_blocks = static_cast<std::uint32_t>(requiredInt(statistics, "blocks"));
            stbuf.f_bfree = static_cast<std::uint32_t>(requiredInt(statistics, "bfree"));
            stbuf.f_bavail = static_cast<std::uint32_t>(requiredInt(statistics, "bavail"));
            stbuf.f_namemax = requiredInt(statistics, "namemax");
            releaseReply();
        } else {
            result = nullptr;
        }
    }
    DirUnlock();
    return result;
}

void DirForgetVFS() {
    stbuf = {};
}
