// macOS's attribute and statistics records on Linux: the sources that are compiled behind this header see its names and
// widths. No record of these goes to a system call.
#pragma once

#include <cstdint>
#include <sys/stat.h>
#include <sys/statvfs.h>

using darwin_mode_t = std::uint16_t;

inline int unmount(const char*, int) {
    return 0;
}

struct darwin_stat {
    std::int32_t st_dev;
    darwin_mode_t st_mode;
    std::uint16_t st_nlink;
    std::uint64_t st_ino;
    std::uint32_t st_uid, st_gid;
    std::int32_t st_rdev;
    timespec st_atimespec, st_mtimespec, st_ctimespec, st_birthtimespec;
    std::int64_t st_size, st_blocks;
    std::uint32_t st_blksize, st_flags, st_gen, st_spare[5];
};

struct darwin_statvfs {
    unsigned long f_bsize, f_frsize;
    std::uint32_t f_blocks, f_bfree, f_bavail, f_files, f_ffree, f_favail;
    unsigned long f_fsid, f_flag, f_namemax;
};

#undef st_atime
#undef st_mtime
#undef st_ctime
#define st_atime st_atimespec.tv_sec
#define st_mtime st_mtimespec.tv_sec
#define st_ctime st_ctimespec.tv_sec
#define mode_t darwin_mode_t
#define stat darwin_stat
#define statvfs darwin_statvfs
