// The JSON that the server answers with.
#pragma once

#include "storage/system.h"

#include <dirent.h>
#include <memory>
#include <sys/stat.h>
#include <sys/statvfs.h>

std::string attributeObject(const struct stat& st);
std::string statisticsObject(const struct statvfs& volume); // in units that make the counts fit 31 bits
std::string statusEnvelope(int code);                       // the outcome of make-directory and rename

constexpr std::size_t listingMemory = 1 << 17;

// The listing of a directory, which is made while it is sent, so that it needs no more memory when it is long.
struct Listing {
    std::unique_ptr<DIR, int (*)(DIR*)> directory{nullptr, closedir};
    std::string path; // of the directory in the tree, with a slash unless it is empty
    std::string text; // what was made last
    std::size_t taken = 0;
    bool isComplete = false; // `text` holds the end
    unsigned leftOut = 0;    // names that are not UTF-8
};

// Begins the listing of `directory`, which is `path` in the tree; 0 or a negated error number. It leaves out what has
// just been removed, what is not shown, and names that are not UTF-8, for which there is a line on standard error. Any
// other error fails the listing, because it must not hide entries.
int beginListing(Descriptor directory, const std::string& path, Listing& listing);

// Copies the next bytes of the listing, up to `size`. Returns their number, 0 at the end, or a negated error number.
ssize_t readListing(Listing& listing, char* bytes, std::size_t size);
