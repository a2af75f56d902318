// The volume statistics, which statfs reports.
#pragma once

#include <sys/statvfs.h>

// The volume statistics, or null when the service does not supply them. They are asked for until an answer has a
// `namemax` other than 0. The record belongs to the cache: hold its lock while you copy, but not around the call, which
// may wait for the network.
struct statvfs* DirGetVFS();

// Marks the statistics as never fetched.
void DirForgetVFS();
