// The one place that includes the FUSE library, and what the platform's FUSE library lacks or adds.
#pragma once

#define FUSE_USE_VERSION 26
#include <fuse.h>

// Called by main, before the loop: allows as many descriptors as the system does (each thread that makes requests needs
// three) and, where the platform needs it, tells the heap what to keep and makes the main thread ready to be woken up.
void platformBeforeLoop();

// Called from the init callback, before the first file-system request: remembers the running loop and the disk, holds
// the FUSE device by a second descriptor until the process ends, and asks the kernel for write requests of up to
// 128 KiB. Does nothing on macOS.
void platformLoopStarts(struct fuse_conn_info* conn);

// Called from the init callback: lets the kernel read ahead of programs as far as a server needs whose replies take
// `roundTrip` seconds. Where this user is not allowed to, it tries again for half a minute, on a thread of its own.
// Changes nothing where the server is near, where one request at a time is served, and on macOS.
void platformFitReadAhead(struct fuse_conn_info* conn, double roundTrip);

// Called from the destroy callback, when the loop has ended and the FUSE handle is about to be freed. Ignores SIGPIPE
// again, which the library has set back.
void platformLoopEnded();

// Makes the running FUSE loop of this process end as FUSE's own exit-signal handler would. Called by the exit thread
// only. On macOS the library has this function, so it is a C function. On Linux it is ours, and returns when the loop
// has ended.
extern "C" void fuse_exit_handler_internal_np();

// Detaches the disk from the file tree at once, even when it is in use and its requests are not answered; does nothing
// when it is not mounted. Called by the thread that ends the process right after.
void platformDetachMount();
