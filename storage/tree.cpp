#include "storage/tree.h"

#include "InformFinder/normal_form.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <utf8proc.h>

namespace {

constexpr unsigned permissionBits = 0777;
constexpr int mostRaces = 128;

int treeDescriptor = -1;
mode_t directoryMode = 0755;

// The kernel answers EAGAIN when a rename somewhere raced with the walk below the directory.
int openBeneath(const std::string& path, std::uint64_t flags, unsigned mode) {
    open_how how = {};
    how.flags = flags | O_CLOEXEC;
    how.mode = mode;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
    for (int races = 0; races < mostRaces; ++races) {
        const long result = syscall(SYS_openat2, treeDescriptor, path.empty() ? "." : path.c_str(), &how, sizeof how);
        if (result >= 0) {
            return static_cast<int>(result);
        }
        if (errno != EAGAIN && errno != EINTR) {
            return -errno;
        }
    }
    return -EBUSY;
}

// 0 when `path` opens with these flags, else the negated error number.
int probe(const std::string& path, std::uint64_t flags) {
    const int descriptor = openBeneath(path, flags | O_PATH, 0);
    if (descriptor >= 0) {
        close(descriptor);
        return 0;
    }
    return descriptor;
}

bool isAscii(const std::string& text) {
    for (const char c : text) {
        if (static_cast<unsigned char>(c) >= 0x80) {
            return false;
        }
    }
    return true;
}

// The path with every component as the directory spells it: as given where that exists, else composed, else
// decomposed, else as given.
std::string storedSpelling(const std::string& path) {
    if (isAscii(path)) {
        return path;
    }
    std::string stored;
    for (std::size_t start = 0; start < path.size();) {
        const std::size_t end = std::min(path.find('/', start), path.size());
        const std::string name = path.substr(start, end - start);
        const std::string before = stored.empty() ? "" : stored + "/";
        stored = before + name;
        if (probe(stored, O_NOFOLLOW) == -ENOENT) {
            for (const int form : {UTF8PROC_COMPOSE, UTF8PROC_DECOMPOSE}) {
                const std::string candidate = before + normalForm(name, form).value_or(name);
                if (probe(candidate, O_NOFOLLOW) == 0) {
                    stored = candidate;
                    break;
                }
            }
        }
        start = end + 1;
    }
    return stored;
}

// The directory that holds the last component of `path` (O_PATH; the caller closes it), and that component.
int openParent(const std::string& path, std::string& name) {
    if (path.empty()) {
        return -EPERM;
    }
    const std::size_t slash = path.rfind('/');
    name = slash == std::string::npos ? path : path.substr(slash + 1);
    return openBeneath(slash == std::string::npos ? "" : path.substr(0, slash), O_PATH | O_DIRECTORY, 0);
}

int removeInTree(const std::string& path, int flags) {
    const std::string stored = storedSpelling(path);
    if (const int there = probe(stored, 0); there != 0) {
        return there;
    }
    std::string name;
    const int parent = openParent(stored, name);
    if (parent < 0) {
        return parent;
    }
    const int result = unlinkat(parent, name.c_str(), flags) == 0 ? 0 : -errno;
    close(parent);
    return result;
}

} // namespace

int openTree(const char* directory) {
    directoryMode = permissionBits & ~umask(0);
    treeDescriptor = open(directory, O_PATH | O_DIRECTORY | O_CLOEXEC);
    return treeDescriptor < 0 ? -errno : probe("", O_DIRECTORY);
}

int openInTree(const std::string& path, std::uint64_t flags) {
    const int descriptor = openBeneath(path, flags, 0);
    return descriptor == -ENOENT && !isAscii(path) ? openBeneath(storedSpelling(path), flags, 0) : descriptor;
}

int statInTree(const std::string& path, struct stat& st) {
    const int descriptor = openInTree(path, O_PATH);
    if (descriptor < 0) {
        return descriptor;
    }
    const int result = fstat(descriptor, &st) == 0 ? 0 : -errno;
    close(descriptor);
    return result;
}

int createInTree(const std::string& path, unsigned mode) {
    if (path.empty() || !isUtf8(path.c_str())) {
        return path.empty() ? -EPERM : -EINVAL;
    }
    const int descriptor =
        openBeneath(storedSpelling(path), O_WRONLY | O_CREAT | O_NONBLOCK | O_NOCTTY, mode & permissionBits);
    if (descriptor < 0) {
        return descriptor;
    }
    close(descriptor);
    return 0;
}

int openForWritingInTree(const std::string& path) {
    const int descriptor = openInTree(path, O_WRONLY | O_NONBLOCK | O_NOCTTY);
    struct stat st;
    if (descriptor >= 0 && (fstat(descriptor, &st) != 0 || !S_ISREG(st.st_mode))) {
        close(descriptor);
        return -EPERM;
    }
    return descriptor;
}

int truncateInTree(const std::string& path, std::int64_t size) {
    const int file = openForWritingInTree(path);
    if (file < 0) {
        return file;
    }
    const int result = ftruncate(file, size) == 0 ? 0 : -errno;
    close(file);
    return result;
}

int makeDirectoryInTree(const std::string& path) {
    if (!isUtf8(path.c_str())) {
        return -EINVAL;
    }
    std::string name;
    const int parent = openParent(storedSpelling(path), name);
    if (parent < 0) {
        return parent;
    }
    const int result = mkdirat(parent, name.c_str(), directoryMode) == 0 ? 0 : -errno;
    close(parent);
    return result;
}

int removeFileInTree(const std::string& path) {
    return removeInTree(path, 0);
}

int removeDirectoryInTree(const std::string& path) {
    return removeInTree(path, AT_REMOVEDIR);
}

int renameInTree(const std::string& from, const std::string& to, bool replace) {
    if (!isUtf8(to.c_str())) {
        return -EINVAL;
    }
    const std::string source = storedSpelling(from);
    if (const int there = probe(source, 0); there != 0) {
        return there;
    }
    const std::string destination = storedSpelling(to);
    // A name that is taken by a link to the outside is not shown, and not given away either.
    if (probe(destination, O_NOFOLLOW) == 0 && probe(destination, 0) != 0) {
        return -EEXIST;
    }
    std::string sourceName;
    const int sourceParent = openParent(source, sourceName);
    if (sourceParent < 0) {
        return sourceParent;
    }
    std::string destinationName;
    const int destinationParent = openParent(destination, destinationName);
    int result = destinationParent;
    if (destinationParent >= 0) {
        result = renameat2(sourceParent, sourceName.c_str(), destinationParent, destinationName.c_str(),
                           replace ? 0 : RENAME_NOREPLACE) == 0
                     ? 0
                     : -errno;
        // Both parents are directories, so what is not one is a file in the way of a directory.
        result = result == -ENOTDIR ? -EEXIST : result;
        close(destinationParent);
    }
    close(sourceParent);
    return result;
}

bool isUtf8(const char* text) {
    const auto* bytes = reinterpret_cast<const utf8proc_uint8_t*>(text);
    while (*bytes != 0) {
        utf8proc_int32_t codePoint = 0;
        const utf8proc_ssize_t length = utf8proc_iterate(bytes, -1, &codePoint);
        if (length < 0) {
            return false;
        }
        bytes += length;
    }
    return true;
}
