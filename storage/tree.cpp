#include "storage/tree.h"

#include "InformFinder/normal_form.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/magic.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <unistd.h>
#include <utf8proc.h>

namespace {

constexpr unsigned permissionBits = 0777;
constexpr unsigned ownersBits = 0600;
constexpr int mostRaces = 128;

int treeDescriptor = -1;
mode_t newFileMode = 0666;
mode_t newDirectoryMode = 0777;
bool syncsChanges = false;

// Tries again on EAGAIN, with which the kernel answers when something was renamed during its walk below the directory.
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
    return -EAGAIN;
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

// True on file systems whose files are the kernel's own state, where a write may change the system.
bool isKernelState(int descriptor) {
    struct statfs volume;
    if (fstatfs(descriptor, &volume) != 0) {
        return false;
    }
    switch (volume.f_type) {
    case PROC_SUPER_MAGIC:
    case SYSFS_MAGIC:
    case DEBUGFS_MAGIC:
    case TRACEFS_MAGIC:
    case SECURITYFS_MAGIC:
    case CGROUP_SUPER_MAGIC:
    case CGROUP2_SUPER_MAGIC:
    case EFIVARFS_MAGIC:
    case BPF_FS_MAGIC:
        return true;
    default:
        return false;
    }
}

bool isFileToWrite(int descriptor) {
    struct stat st;
    return fstat(descriptor, &st) == 0 && S_ISREG(st.st_mode) && !isKernelState(descriptor);
}

// Splits the last component off and returns it; `path` becomes the path of the directory that holds it.
std::string takeName(std::string& path) {
    const std::size_t slash = path.rfind('/');
    std::string name = path.substr(slash == std::string::npos ? 0 : slash + 1);
    path.resize(slash == std::string::npos ? 0 : slash);
    return name;
}

// Opens the directory in which the entry `name` is to be changed. The caller ends the change with finishChange.
int openParent(const std::string& directory, const std::string& name) {
    if (name.empty()) {
        return -EPERM;
    }
    const int parent = openBeneath(directory, O_DIRECTORY | (syncsChanges ? O_RDONLY : O_PATH), 0);
    if (parent >= 0 && isKernelState(parent)) {
        close(parent);
        return -EPERM;
    }
    return parent;
}

// `sync` is fsync or fdatasync. On a file system that has nothing to wait for it fails with EINVAL.
int syncDescriptor(int descriptor, int (*sync)(int)) {
    return !syncsChanges || sync(descriptor) == 0 || errno == EINVAL ? 0 : -errno;
}

// Syncs `parent` after a change in it whose outcome was `result`, and closes it. Returns the outcome of both.
int finishChange(int parent, int result) {
    if (result == 0) {
        result = syncDescriptor(parent, fsync);
    }
    close(parent);
    return result;
}

int resultOf(int outcome) {
    return outcome == 0 ? 0 : -errno;
}

int removeInTree(const std::string& path, int flags) {
    std::string directory = storedSpelling(path);
    if (const int there = probe(directory, 0); there != 0) {
        return there;
    }
    const std::string name = takeName(directory);
    const int parent = openParent(directory, name);
    return parent < 0 ? parent : finishChange(parent, resultOf(unlinkat(parent, name.c_str(), flags)));
}

} // namespace

void DescriptorCloser::operator()(const int* descriptor) const {
    if (*descriptor >= 0) {
        close(*descriptor);
    }
}

int openTree(const char* directory, bool sync) {
    const mode_t mask = umask(0);
    newFileMode &= ~mask;
    newDirectoryMode &= ~mask;
    syncsChanges = sync;
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

int createInTree(const std::string& path, std::optional<unsigned> mode) {
    if (!isUtf8(path.c_str())) {
        return -EINVAL;
    }
    std::string directory = storedSpelling(path);
    const std::string name = takeName(directory);
    const int parent = openParent(directory, name);
    if (parent < 0) {
        return parent;
    }
    const int file = openat(parent, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC,
                            (mode.value_or(newFileMode) & permissionBits) | ownersBits);
    if (file >= 0) {
        const int synced = syncDescriptor(file, fsync);
        const int closed = resultOf(close(file));
        return finishChange(parent, synced != 0 ? synced : closed);
    }
    const int error = -errno;
    close(parent);
    if (error != -EEXIST) {
        return error;
    }
    struct stat st;
    const int there = statInTree(path, st);
    return there != 0 || S_ISREG(st.st_mode) ? there : -EPERM;
}

int openForWritingInTree(const std::string& path) {
    const int look = openInTree(path, O_PATH);
    if (look < 0) {
        return look;
    }
    const bool isOne = isFileToWrite(look);
    close(look);
    const int file = isOne ? openInTree(path, O_WRONLY | O_NONBLOCK | O_NOCTTY) : -EPERM;
    if (file >= 0 && !isFileToWrite(file)) {
        close(file);
        return -EPERM;
    }
    return file;
}

int finishWriting(int file, const std::string& path, struct stat& st) {
    const int synced = syncDescriptor(file, fdatasync);
    const int result = resultOf(fstat(file, &st));
    const int closed = resultOf(close(file));
    if (const int error = synced != 0 ? synced : result != 0 ? result : closed; error != 0) {
        return error;
    }
    // Some file systems do not count links; then the path has to lead to the file.
    struct stat found;
    return st.st_nlink > 0 || (statInTree(path, found) == 0 && found.st_dev == st.st_dev && found.st_ino == st.st_ino)
               ? 0
               : -ENOENT;
}

int truncateInTree(const std::string& path, std::int64_t size) {
    const int file = openForWritingInTree(path);
    if (file < 0) {
        return file;
    }
    const int result = resultOf(ftruncate(file, size));
    struct stat st;
    const int finished = finishWriting(file, path, st);
    return result != 0 ? result : finished;
}

int makeDirectoryInTree(const std::string& path) {
    if (!isUtf8(path.c_str())) {
        return -EINVAL;
    }
    std::string directory = storedSpelling(path);
    const std::string name = takeName(directory);
    const int parent = openParent(directory, name);
    return parent < 0 ? parent : finishChange(parent, resultOf(mkdirat(parent, name.c_str(), newDirectoryMode)));
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
    // A link that leads outside is not shown, so it must not be replaced either.
    if (probe(destination, O_NOFOLLOW) == 0 && probe(destination, 0) != 0) {
        return -EEXIST;
    }
    std::string sourceDirectory = source;
    const std::string sourceName = takeName(sourceDirectory);
    std::string targetDirectory = destination;
    const std::string targetName = takeName(targetDirectory);
    const int sourceParent = openParent(sourceDirectory, sourceName);
    if (sourceParent < 0) {
        return sourceParent;
    }
    const int targetParent = openParent(targetDirectory, targetName);
    if (targetParent < 0) {
        close(sourceParent);
        return targetParent;
    }
    const int result = resultOf(
        renameat2(sourceParent, sourceName.c_str(), targetParent, targetName.c_str(), replace ? 0 : RENAME_NOREPLACE));
    // Both parents are directories, so this error means that a directory was to replace a file.
    return finishChange(sourceParent, finishChange(targetParent, result == -ENOTDIR ? -EEXIST : result));
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
