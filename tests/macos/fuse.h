// What the daemon uses of OSXFUSE 2.x: of the table the slots that it fills, in their order, and as much room as the
// others take. The test stands in for the library.
#pragma once

#include <cstdint>
#include <sys/types.h>

using fuse_fill_dir_t = int (*)(void*, const char*, const struct stat*, off_t);

struct fuse_file_info {
    int flags;
    std::uint64_t fh;
};

struct fuse_operations {
    int (*getattr)(const char*, struct stat*), (*mkdir)(const char*, mode_t), (*unlink)(const char*);
    int (*rmdir)(const char*), (*rename)(const char*, const char*), (*chmod)(const char*, mode_t);
    int (*truncate)(const char*, off_t), (*open)(const char*, fuse_file_info*);
    int (*read)(const char*, char*, std::size_t, off_t, fuse_file_info*);
    int (*write)(const char*, const char*, std::size_t, off_t, fuse_file_info*);
    int (*statfs)(const char*, struct statvfs*), (*flush)(const char*, fuse_file_info*);
    int (*getxattr)(const char*, const char*, char*, std::size_t, std::uint32_t);
    int (*readdir)(const char*, void*, fuse_fill_dir_t, off_t, fuse_file_info*);
    void* (*init)(struct fuse_conn_info*), (*destroy)(void*);
    int (*create)(const char*, mode_t, fuse_file_info*), (*setattr_x)(const char*, struct setattr_x*);
    void* others[40];
};

extern "C" int fuse_main_real(int argc, char* argv[], const fuse_operations* table, std::size_t size, void* userData);
