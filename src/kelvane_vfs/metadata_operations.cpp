#include "kelvane_vfs/operations.h"

#include "InformFinder/finder_sidebar.h"
#include "cache/dir_entry.h"
#include "cache/path_lookup.h"
#include "cache/volume_statistics.h"
#include "cache/xattrs.h"
#include "kelvane_vfs/process.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

// The error for a missing attribute. It is macOS's number on every platform.
constexpr int noSuchAttribute = 93;

} // namespace

int kelvane_getattr(const char* path, struct stat* st) {
    if (finderInformed == 0) {
        informFinder(finderName);
        finderInformed = 1;
    }
    std::fprintf(stderr, "kelvane_getattr: %s\n", path);
    *st = {};
    DirLock();
    const DirEntry* entry = DirGetEntry(path);
    if (entry != nullptr) {
        *st = entry->st;
    }
    DirUnlock();
    if (entry == nullptr) {
        std::printf("No attr for: %s\n", path);
        return -ENOENT;
    }
    return 0;
}

int kelvane_readdir(const char* path, void* buffer, fuse_fill_dir_t filler, off_t, struct fuse_file_info*) {
    std::fprintf(stderr, "kelvane_readdir: %s\n", path);
    if (DirRead(path, buffer, filler) == 0) {
        // DirRead keeps its level of the lock when it fails; without this every other thread would wait forever.
        DirUnlock();
        return -ENOENT;
    }
    return 0;
}

int kelvane_statfs(const char*, struct statvfs* record) {
    const struct statvfs* statistics = DirGetVFS();
    if (statistics != nullptr && record != nullptr) {
        DirLock();
        *record = *statistics;
        DirUnlock();
    }
    return 0;
}

int kelvane_chmod(const char* path, mode_t mode) {
    std::fprintf(stderr, "kelvane_chmod: %s -> %d\n", path, static_cast<int>(static_cast<std::uint16_t>(mode)));
    return 0;
}

int kelvane_setattr_x(const char* path, struct setattr_x*) {
    std::fprintf(stderr, "kelvane_setattr_x: %s\n", path);
    return 0;
}

int kelvane_getxattr(const char* path, const char* name, char* value, std::size_t size, std::uint32_t position) {
    std::fprintf(stderr, "kelvane_getxattr: %s - %s (size: %lu, pos: %u)\n", path, name,
                 static_cast<unsigned long>(size), position);
    // The store takes no lock while a value is used; its caller does.
    DirLock();
    const char* stored = DirEntryGetXAttr(path, name);
    if (stored != nullptr) {
        std::memcpy(value + position, stored, size);
    }
    DirUnlock();
    return stored != nullptr ? static_cast<int>(size) : -noSuchAttribute;
}

int kelvane_listxattr(const char* path, char*, std::size_t) {
    std::fprintf(stderr, "kelvane_listxattr: %s\n", path);
    return 0;
}

int kelvane_removexattr(const char* path, const char* name) {
    std::fprintf(stderr, "kelvane_removexattr: %s - %s\n", path, name);
    DirLock();
    DirEntryRemoveXAttr(path, name);
    DirUnlock();
    return 0;
}
