// The served directory. The kernel opens every name below it and follows only links that stay inside, so nothing
// outside can be reached. Paths are relative to the directory, "a/b", and empty for the directory itself. What fails
// returns a negated error number; -EIO also stands for what looks like an answer, but comes from a disk that is gone.
#pragma once

#include "storage/system.h"

#include <optional>
#include <sys/stat.h>

// Opens the directory to serve, before all else. With `sync` every change is on the disk before its function returns.
int openTree(const char* directory, bool sync);

// True when the served directory has been removed, or the mount that it was on is cut off.
bool isTreeGone();

// Finds what `path` leads to, without opening it, and stores its attributes in `st`. -ENOENT for sockets and devices,
// which are not shown: clients would take them for directories.
Descriptor lookUp(const std::string& path, struct stat& st);

struct Entry {
    int directory;            // open
    const std::string& place; // its path, which ends in a slash unless it is empty
    const char* name;
};

// The same for an entry, but quicker. On failure `st` has what was found: perhaps the link itself, or nothing (mode 0).
int statEntry(const Entry& entry, struct stat& st);

// Opens the file at `path` for reading or writing (O_RDONLY, O_WRONLY), or the directory for reading. -EPERM for all
// else, and for writing the kernel's own state. It waits while another program has a lease.
Descriptor openInTree(const std::string& path, int access, struct stat& st);

// Reads `length` bytes at `offset`, less only at the end of the file. Returns their number.
ssize_t readFrom(const Descriptor& file, char* bytes, std::size_t length, std::uint64_t offset);

// Writes all of `bytes` at `offset` to `file`, which was opened at `path`, closes it and stores its attributes in `st`.
// After an error the data may be lost; after -ENOENT the file has been removed or replaced.
int writeInTree(Descriptor file, const std::string& path, std::string_view bytes, std::int64_t offset, struct stat& st);

int truncateInTree(const std::string& path, std::int64_t size);

// A name that is not UTF-8 would never be listed, so the functions below make none.
bool isUtf8(std::string_view text);

// Makes a regular file with the permission bits of `mode` unless it is there already. The server's user may always read
// and write it, because each write opens the file anew. Without `mode` the file has the bits of any new file here.
int createInTree(const std::string& path, std::optional<unsigned> mode);
int makeDirectoryInTree(const std::string& path);

// `flags` is 0 for a file, AT_REMOVEDIR for a directory.
int removeInTree(const std::string& path, int flags);

// Moves `from` to `to` in one step. With `replace`, an existing `to` is replaced by the rules of the local system.
int renameInTree(const std::string& from, const std::string& to, bool replace);
