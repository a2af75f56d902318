// What macOS's headers have, and do not have, on Linux, as far as it is used: the sources that are compiled behind this
// header see its names and widths. No record of these goes to a system call.
#pragma once

#define environ undeclared_environ
#include <unistd.h>
#undef environ

#include <cstdint>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#define OPEN_MAX 10240

using darwin_mode_t = std::uint16_t;

const auto unmount = [](const char*, int) { return 0; };

struct darwin_stat {
    darwin_mode_t st_mode;
    std::uint16_t st_nlink;
    std::uint32_t st_uid, st_gid;
    timespec st_atim, st_mtim, st_ctim;
    std::int64_t st_size, st_blocks;
};

struct darwin_statvfs {
    unsigned long f_bsize, f_frsize;
    std::uint32_t f_blocks, f_bfree, f_bavail, f_files, f_ffree, f_favail;
    unsigned long f_fsid, f_flag, f_namemax;
};

#define mode_t darwin_mode_t
#define stat darwin_stat
#define statvfs darwin_statvfs
