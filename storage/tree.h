// The served directory. The kernel opens every name below it and follows only links that stay inside, so nothing
// outside can be reached. Paths are relative to the directory, "a/b", and empty for the directory itself. Functions
// return 0 or a descriptor, or a negated error number.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>

// Closes a descriptor at the end of a block, unless it has become negative.
struct DescriptorCloser {
    void operator()(const int* descriptor) const;
};
using ClosedAtEnd = std::unique_ptr<const int, DescriptorCloser>;

// Opens the directory to serve; once, before everything else. With `sync` every change below is on the disk before its
// function returns.
int openTree(const char* directory, bool sync);

// Opens `path` with open(2)'s flags; the caller closes it.
int openInTree(const std::string& path, std::uint64_t flags);

// Attributes of what `path` leads to.
int statInTree(const std::string& path, struct stat& st);

// Opens the regular file at `path` to be written; -EPERM for anything else, which is not opened at all. The caller ends
// the change with finishWriting.
int openForWritingInTree(const std::string& path);

// Closes `file`, which was opened at `path`, and stores its attributes in `st`. An error means that the data may be
// lost: the disk has reported an error only now, or (-ENOENT) the file has been removed or replaced.
int finishWriting(int file, const std::string& path, struct stat& st);

// Cuts or extends the file at `path` to `size` bytes.
int truncateInTree(const std::string& path, std::int64_t size);

// A name that is not UTF-8 would never be listed, so the functions below make none.

// Makes a regular file with the permission bits of `mode` unless it is there already. The server's user may always read
// and write it, because each write opens the file anew. Without `mode` the file has the bits of any new file here.
int createInTree(const std::string& path, std::optional<unsigned> mode);

int makeDirectoryInTree(const std::string& path);
int removeFileInTree(const std::string& path);
int removeDirectoryInTree(const std::string& path);

// Moves `from` to `to` in one step. With `replace`, an existing `to` is replaced by the rules of the local system.
int renameInTree(const std::string& from, const std::string& to, bool replace);

// True when `text` is valid UTF-8.
bool isUtf8(const char* text);
