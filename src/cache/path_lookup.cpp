#include "cache/path_lookup.h"

#include "cache/remote_fetch.h"
#include "cache/root.h"
#include "kelvane_vfs/checked_text.h"
#include "kelvane_vfs/not_null.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

// The limit of the kernel's FUSE module.
constexpr std::size_t longestKernelName = 1024;
constexpr std::size_t pathBufferSize = 2048;

bool isWithheld(const char* name) {
    return *name == '\0' || std::strchr(name, '/') != nullptr || std::strlen(name) > longestKernelName;
}

void fetchListing(const char* path, DirEntry* dir) {
    ++recordsInUse;
    DirFetchRemoteDir(path, dir);
    --recordsInUse;
}

} // namespace

DirEntry* DirGetEntryUnlocked(const char* path) {
    if (dirEntryTop == nullptr) {
        std::abort();
    }
    char* copy = notNull(strdup(path));
    char* walked = notNull(static_cast<char*>(std::malloc(std::strlen(path) + 2)));
    DirDropOverdue();

    DirEntry* current = dirEntryTop;
    char* end = stpcpy(walked, "/");
    char* rest = nullptr;
    for (char* component = strtok_r(copy, "/", &rest); component != nullptr && current != nullptr;
         component = strtok_r(nullptr, "/", &rest)) {
        if (current->type != directoryType) {
            current = nullptr;
            break;
        }
        if (current->fetchTime == 0) {
            fetchListing(walked, current);
        }
        current = DirEntryFindChild(current, component);
        if (end != walked + 1) {
            *end++ = '/';
        }
        end = stpcpy(end, component);
    }
    std::free(copy);
    std::free(walked);
    return current;
}

DirEntry* DirGetEntry(const char* path) {
    DirLock();
    DirEntry* entry = DirGetEntryUnlocked(path);
    DirUnlock();
    return entry;
}

char* DirReadOriginalEncodingPathUnlocked(const char* path) {
    auto* result = notNull(static_cast<char*>(std::malloc(pathBufferSize)));
    *result = '\0';
    char* copy = notNull(strdup(path));
    char prefix[pathBufferSize] = "";
    std::printf("%s: %s\n", "DirReadOriginalEncodingPathUnlocked", path);

    char* rest = nullptr;
    for (char* component = strtok_r(copy, "/", &rest); component != nullptr;
         component = strtok_r(nullptr, "/", &rest)) {
        checkedAppend(prefix, sizeof prefix, "/");
        checkedAppend(prefix, sizeof prefix, component);
        checkedAppend(result, pathBufferSize, "/");
        const DirEntry* entry = DirGetEntryUnlocked(prefix);
        checkedAppend(result, pathBufferSize, entry != nullptr ? entry->name : component);
        std::printf("encoded_path=%s\n", result);
    }
    std::free(copy);
    return result;
}

char* DirReadOriginalEncodingPath(const char* path) {
    DirLock();
    char* result = DirReadOriginalEncodingPathUnlocked(path);
    DirUnlock();
    return result;
}

int DirRead(const char* path, void* buf, fuse_fill_dir_t filler) {
    // Held from here to the end, so that the record cannot be dropped between its look-up and its use.
    DirLock();
    DirEntry* dir = DirGetEntry(path);
    if (dir == nullptr || dir->type != directoryType) {
        return 0;
    }
    if (dir->fetchTime == 0) {
        ++recordsInUse;
        char* servicePath = DirReadOriginalEncodingPathUnlocked(path);
        DirFetchRemoteDir(servicePath, dir);
        --recordsInUse;
        std::free(servicePath);
    }
    std::string trace; // many lines at once, because each would be a system call
    for (const DirEntry* child = dir->children; child != nullptr;
         child = static_cast<const DirEntry*>(child->hh.next)) {
        trace.append("CACHE-DirRead: adding: ").append(child->name).append("\n");
        if (trace.size() >= BUFSIZ / 2 || child->hh.next == nullptr) {
            std::fwrite(trace.data(), 1, trace.size(), stdout);
            trace.clear();
        }
        if (!isWithheld(child->name)) {
            filler(buf, child->name, &child->st, 0);
        }
    }
    DirUnlock();
    return 1;
}
