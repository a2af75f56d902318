#include "InformFinder/finder_sidebar.h"

#include "InformFinder/favourite_volumes.h"
#include "kelvane_vfs/checked_text.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <pthread.h>

namespace {

// 64 bytes of a name's part and their terminator.
constexpr std::size_t partBufferSize = 64 + 1;

} // namespace

int informFinder(void* diskName) {
    pthread_t thread = {};
    if (pthread_create(&thread, nullptr, thread_main, diskName) != 0) {
        return ESRCH;
    }
    return pthread_detach(thread);
}

void* thread_main(void* diskName) {
    inform(static_cast<char*>(diskName));
    return nullptr;
}

void inform(char* diskName) {
    std::fprintf(stderr, "informing finder to add disk to sidebar: %s\n", diskName);
    void* pool = openAutoreleasePool();
    char* path = pathFromDiskName(diskName);
    if (path == nullptr) {
        // The pool is left to the end of the thread.
        return;
    }
    std::fprintf(stderr, "path: %s\n", path);
    insertFavouriteVolume(path);
    std::free(path);
    releaseAutoreleasePool(pool);
}

char* pathFromDiskName(char* diskName) {
    const char* open = std::strrchr(diskName, '(');
    if (open == nullptr) {
        return nullptr;
    }
    // The character before the parenthesis separates the parts, whatever it is. A negative length fails the check.
    char disk[partBufferSize];
    checkedCopyBytes(disk, sizeof disk, diskName, static_cast<std::size_t>(open - diskName - 1));
    const char* close = std::strrchr(open - 1, ')');
    if (close == nullptr) {
        return nullptr;
    }
    char server[partBufferSize];
    checkedCopyBytes(server, sizeof server, open + 1, static_cast<std::size_t>(close - open - 1));
    char* home = homeDirectory();
    char* path = nullptr;
    const int length = asprintf(&path, "%s/Library/kelvane/mount/%s/%s", home, server, disk);
    std::free(home);
    return length >= 0 ? path : nullptr;
}
