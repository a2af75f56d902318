// The FUSE callbacks and their table. Each returns 0 or a byte count, or a negated error number; paths are
// absolute within the mount.
#pragma once

#include "kelvane_vfs/fuse_platform.h"

#include <cstddef>
#include <cstdint>

extern const struct fuse_operations kelvane_filesystem_operations;

// Life cycle (operations.cpp).
void* kelvane_init(struct fuse_conn_info* conn);
void kelvane_destroy(void* privateData);

// Metadata (metadata_operations.cpp): served from the cache; changes of attributes are accepted and ignored.
int kelvane_getattr(const char* path, struct stat* st);
int kelvane_readdir(const char* path, void* buffer, fuse_fill_dir_t filler, off_t offset, struct fuse_file_info* fi);
int kelvane_statfs(const char* path, struct statvfs* record);
int kelvane_chmod(const char* path, mode_t mode);
int kelvane_setattr_x(const char* path, struct setattr_x* attributes);

// Extended attributes: complete, but in no slot of the table. `getxattr` copies `size` bytes to `position` of
// `value` and returns `size`, or -93 when there is no such attribute; the other two always return 0.
int kelvane_getxattr(const char* path, const char* name, char* value, std::size_t size, std::uint32_t position);
int kelvane_listxattr(const char* path, char* list, std::size_t size);
int kelvane_removexattr(const char* path, const char* name);

// What the body of a change's reply says: nothing, or the outcome.
enum class Body { ignored, statusEnvelope };

// Sends a change of one path and refreshes its cache entry after success. Returns 0, or -2 after a line on standard
// error (namespace_operations.cpp).
int changeAndUpdate(const char* path, const char* query, Body body);

// File data (file_operations.cpp): every read is a ranged GET, every write goes out at once.
int kelvane_create(const char* path, mode_t mode, struct fuse_file_info* fi);
int kelvane_open(const char* path, struct fuse_file_info* fi);
int kelvane_read(const char* path, char* buf, std::size_t size, off_t offset, struct fuse_file_info* fi);
int kelvane_write(const char* path, const char* buf, std::size_t size, off_t offset, struct fuse_file_info* fi);
int kelvane_truncate(const char* path, off_t size);
int kelvane_flush(const char* path, struct fuse_file_info* fi);

// Namespace (namespace_operations.cpp): one request for the change, then the cache is refreshed.
int kelvane_mkdir(const char* path, mode_t mode);
int kelvane_unlink(const char* path);
int kelvane_rmdir(const char* path);
int kelvane_rename(const char* from, const char* to);
