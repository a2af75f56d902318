// The one place that includes the FUSE library, and what the platform's FUSE library lacks or adds.
#pragma once

#define FUSE_USE_VERSION 26
#include <fuse.h>

// Called by main, before the loop: makes the main thread ready to be woken up, and tells the heap what to keep.
void platformBeforeLoop();

// Called from the init callback, before the first file-system request: remembers the running loop and asks
// the kernel for write requests of up to 128 KiB.
void platformLoopStarts(struct fuse_conn_info* conn);

// Called from the destroy callback, when the loop has ended and the FUSE handle is about to be freed.
void platformLoopEnded();

// Makes the running FUSE loop of this process end as FUSE's own exit-signal handler would; returns when the
// loop has ended. Called by the exit thread only.
void fuse_exit_handler_internal_np();

// Accept-and-ignore answers for the attribute changes that this platform's library asks for one by one.
int kelvane_chown(const char* path, uid_t owner, gid_t group);
int kelvane_utimens(const char* path, const struct timespec times[2]);

// Completes the operation table with the slots that only this platform's library has.
constexpr fuse_operations withPlatformSlots(fuse_operations table) {
    table.chown = kelvane_chown;
    table.utimens = kelvane_utimens;
    return table;
}
