// The served directory. Every name is opened below it by the kernel's own rule: links that stay inside are
// followed, nothing outside can be reached. Paths are relative to it, "a/b", empty for the directory itself.
// Functions return 0 or a descriptor, or a negated error number.
#pragma once

#include <cstdint>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>

// Opens the directory to serve; once, before everything else.
int openTree(const char* directory);

// Opens `path` with open(2)'s flags; the caller closes it.
int openInTree(const std::string& path, std::uint64_t flags);

// Attributes of what `path` leads to.
int statInTree(const std::string& path, struct stat& st);

// Opens the regular file at `path` to be written; -EPERM for anything else. The caller closes it.
int openForWritingInTree(const std::string& path);

// Cuts or extends the file at `path` to `size` bytes.
int truncateInTree(const std::string& path, std::int64_t size);

// Names that are not UTF-8 would never be listed, so none is made.

// Makes a regular file with the permission bits of `mode` unless it is there already.
int createInTree(const std::string& path, unsigned mode);

int makeDirectoryInTree(const std::string& path);
int removeFileInTree(const std::string& path);
int removeDirectoryInTree(const std::string& path);

// Moves `from` to `to` in one step; an existing `to` is replaced as the local system does if `replace` says
// so.
int renameInTree(const std::string& from, const std::string& to, bool replace);

// True when `text` is valid UTF-8.
bool isUtf8(const char* text);
