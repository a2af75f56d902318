#include "kelvane_vfs/operations.h"

#include "cache/dir_entry.h"
#include "kelvane_vfs/stop_path.h"

void* kelvane_init(struct fuse_conn_info* conn) {
    platformLoopStarts(conn);
    keepExitThread();
    signals_init();
    DirInit();
    return nullptr;
}

void kelvane_destroy(void*) {
    platformLoopEnded();
    DirDestroy();
}

constinit const struct fuse_operations kelvane_filesystem_operations = withPlatformSlots({
    .getattr = kelvane_getattr,
    .mkdir = kelvane_mkdir,
    .unlink = kelvane_unlink,
    .rmdir = kelvane_rmdir,
    .rename = kelvane_rename,
    .chmod = kelvane_chmod,
    .truncate = kelvane_truncate,
    .open = kelvane_open,
    .read = kelvane_read,
    .write = kelvane_write,
    .statfs = kelvane_statfs,
    .flush = kelvane_flush,
    .readdir = kelvane_readdir,
    .init = kelvane_init,
    .destroy = kelvane_destroy,
    .create = kelvane_create,
});
