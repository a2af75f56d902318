#include "kelvane_vfs/operations.h"

#include "cache/root.h"
#include "kelvane_vfs/shutdown.h"
#include "kelvane_vfs/transport.h"

namespace {

// Changes of attributes are accepted and ignored, in the one slot that macOS's table has for all of them or in a slot
// for each kind.
template <typename Table> constexpr Table withAttributeSlots(Table table) {
    if constexpr (requires { table.setattr_x; }) {
        table.setattr_x = kelvane_setattr_x;
    } else {
        table.chown = [](const char* path, uid_t, gid_t) { return kelvane_setattr_x(path, nullptr); };
        table.utimens = [](const char* path, const struct timespec[2]) { return kelvane_setattr_x(path, nullptr); };
    }
    return table;
}

} // namespace

void* kelvane_init(struct fuse_conn_info* conn) {
    platformLoopStarts(conn);
    prepareToStop();
    signals_init();
    DirInit();
    platformFitReadAhead(conn, lastReplySeconds());
    return nullptr;
}

void kelvane_destroy(void*) {
    platformLoopEnded();
    DirDestroy();
}

constinit const struct fuse_operations kelvane_filesystem_operations = withAttributeSlots(fuse_operations{
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
