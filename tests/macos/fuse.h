// What the daemon uses of OSXFUSE 2.x. The table has all slots in their order, with the types of those that the daemon
// has a function for. The test stands in for the library.
#pragma once

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

extern "C" {

struct fuse_conn_info;
struct setattr_x;
using fuse_fill_dir_t = int (*)(void*, const char*, const struct stat*, off_t);
using EmptySlot = void (*)();

struct fuse_file_info {
    int flags;
    unsigned long fh_old;
    int writepage;
    unsigned int bits;
    std::uint64_t fh, lock_owner;
};

struct fuse_operations {
    int (*getattr)(const char*, struct stat*);
    EmptySlot readlink, getdir, mknod;
    int (*mkdir)(const char*, mode_t);
    int (*unlink)(const char*);
    int (*rmdir)(const char*);
    EmptySlot symlink;
    int (*rename)(const char*, const char*);
    EmptySlot link;
    int (*chmod)(const char*, mode_t);
    EmptySlot chown;
    int (*truncate)(const char*, off_t);
    EmptySlot utime;
    int (*open)(const char*, struct fuse_file_info*);
    int (*read)(const char*, char*, std::size_t, off_t, struct fuse_file_info*);
    int (*write)(const char*, const char*, std::size_t, off_t, struct fuse_file_info*);
    int (*statfs)(const char*, struct statvfs*);
    int (*flush)(const char*, struct fuse_file_info*);
    EmptySlot release, fsync, setxattr;
    int (*getxattr)(const char*, const char*, char*, std::size_t, std::uint32_t);
    EmptySlot listxattr, removexattr, opendir;
    int (*readdir)(const char*, void*, fuse_fill_dir_t, off_t, struct fuse_file_info*);
    EmptySlot releasedir, fsyncdir;
    void* (*init)(struct fuse_conn_info*);
    void (*destroy)(void*);
    EmptySlot access;
    int (*create)(const char*, mode_t, struct fuse_file_info*);
    EmptySlot ftruncate, fgetattr, lock, utimens, bmap;
    unsigned int flag_bits;
    EmptySlot ioctl, poll, write_buf, read_buf, flock, fallocate, reserved[3];
    EmptySlot statfs_x, setvolname, exchange, getxtimes, setbkuptime, setchgtime, setcrtime, chflags;
    int (*setattr_x)(const char*, struct setattr_x*);
    EmptySlot fsetattr_x;
};

int fuse_main_real(int argc, char* argv[], const struct fuse_operations* table, std::size_t size, void* userData);
}
