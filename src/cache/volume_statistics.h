// The volume statistics, which statfs reports.
#pragma once

#include <sys/statvfs.h>

// The volume statistics, or null when the service does not supply them. They are asked for until an answer has a
// `namemax` other than 0. The record belongs to the cache; hold the cache's lock around the call and the use.
struct statvfs* DirGetVFS();

// Marks the statistics as never fetched.
void DirForgetVFS();
