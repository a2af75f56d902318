// The JSON objects that the server answers with.
#pragma once

#include "storage/memory.h"

#include <string>
#include <sys/stat.h>
#include <sys/statvfs.h>

// Size, blocks, mode, links and times of a file.
Text attributeObject(const struct stat& st);

// The volume's statistics, in units large enough for the counts to fit 31 bits.
Text statisticsObject(const struct statvfs& volume);

// The outcome of make-directory and rename.
Text statusEnvelope(int code);

// The entries of the directory open at `descriptor` (taken over and closed), which is `path` in the tree,
// into `listing`; 0 or a negated error number. Names that are not UTF-8 and links that lead nowhere inside
// are left out, the former with a line on standard error.
int listingObject(int descriptor, const std::string& path, Text& listing);
