// The volume statistics, which statfs reports.
#pragma once

#include <sys/statvfs.h>

// The volume statistics, fetched once per process, or null when the service does not supply them. The record
// stays the cache's; hold the cache's lock around the call and the use.
struct statvfs* DirGetVFS();

// Marks the statistics as never fetched.
void DirForgetVFS();
