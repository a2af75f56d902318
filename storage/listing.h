// The listing of a directory, which is made while it is sent, so that it needs no more memory when it is long.
#pragma once

#include "storage/descriptor.h"
#include "storage/memory.h"

#include <cstdint>
#include <dirent.h>
#include <memory>
#include <string>

struct Listing {
    std::unique_ptr<DIR, int (*)(DIR*)> directory{nullptr, closedir};
    std::string path; // of the directory, in the tree
    std::string text; // what was made last
    std::size_t taken = 0;
    bool hasElements = false;
    bool isComplete = false; // `text` holds the end
    unsigned leftOut = 0;    // names that are not UTF-8
    MemoryShare share;
};

// Begins the listing of `directory`, which is `path` in the tree, with its first part; continueListing replaces the
// text by the next. Both return 0 or a negated error number. Entries that have just been removed, links that lead
// nowhere inside, sockets, devices and names that are not UTF-8 are left out, the latter with a line on standard error.
// Any other error fails the listing, because it must not hide entries.
int beginListing(Descriptor directory, const std::string& path, Listing& listing);
int continueListing(Listing& listing);
