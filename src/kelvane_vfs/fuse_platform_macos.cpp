#include "kelvane_vfs/fuse_platform.h"

#include "kelvane_vfs/operations.h"
#include "kelvane_vfs/process.h"

#include <algorithm>
#include <climits>
#include <csignal>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <type_traits>

// The layouts that the daemon was designed for: the size of the operation table; fields that hold 16 bits of the
// service's numbers in attributes, and 32 in statistics; and extended attributes that are read at a position.
static_assert(sizeof(fuse_operations) == 464);
static_assert(sizeof(stat::st_mode) == 2 && sizeof(stat::st_nlink) == 2);
static_assert(sizeof(stat::st_size) == 8 && sizeof(stat::st_blocks) == 8);
static_assert(sizeof(statvfs::f_blocks) == 4 && sizeof(statvfs::f_bfree) == 4 && sizeof(statvfs::f_bavail) == 4);
static_assert(sizeof(statvfs::f_bsize) == 8 && sizeof(statvfs::f_frsize) == 8 && sizeof(statvfs::f_namemax) == 8);
static_assert(std::is_same_v<decltype(fuse_operations::getxattr), decltype(&kelvane_getxattr)>);

// The library ends its loop itself, and its kernel part sends writes of the size that it was mounted with. The heap
// gives free memory back by itself.

void platformBeforeLoop() {
    rlimit descriptors = {};
    getrlimit(RLIMIT_NOFILE, &descriptors);
    descriptors.rlim_cur = std::min<rlim_t>(descriptors.rlim_max, OPEN_MAX); // more is refused
    setrlimit(RLIMIT_NOFILE, &descriptors);
}

void platformLoopStarts(struct fuse_conn_info*) {}

void platformFitReadAhead(struct fuse_conn_info*, double) {}

void platformLoopEnded() {
    std::signal(SIGPIPE, SIG_IGN);
}

void platformDetachMount() {
    if (mountDirectory != nullptr) {
        unmount(mountDirectory, MNT_FORCE);
    }
}
