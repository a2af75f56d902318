#include "storage/tree.h"

#include "InformFinder/normal_form.h"

#include <linux/magic.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <utf8proc.h>

namespace {
constexpr unsigned permissionBits = 0777;
constexpr unsigned ownersBits = 0600;
constexpr int maxAttempts = 128;

Descriptor tree;
Descriptor ownDescriptors; // /proc/self/fd
bool treeHasLinks = false; // some file systems do not count the links of a directory
mode_t newFileMode = 0666;
mode_t newDirectoryMode = 0777;
bool syncsChanges = false;

// Tries again on EAGAIN, with which the kernel answers when something was renamed during its walk below the directory.
Descriptor openBeneath(const std::string& path, std::uint64_t flags) {
    const open_how how = {.flags = flags | O_CLOEXEC, .resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS};
    const char* const name = path.empty() ? "." : path.c_str();
    long opened = -EAGAIN;
    for (int attempts = 0; attempts < maxAttempts && (opened == -EAGAIN || opened == -EINTR); ++attempts) {
        opened = resultOf(syscall(SYS_openat2, tree.number, name, &how, sizeof how));
    }
    return Descriptor(static_cast<int>(opened));
}

// A link that leads nowhere is an entry as well. So is one that fails: its other spelling must not stand in for it.
bool isEntry(const std::string& path) {
    const int found = openBeneath(path, O_PATH | O_NOFOLLOW).number;
    return found >= 0 || statusOf(found) != statusOf(ENOENT);
}

bool isShown(const struct stat& st) {
    return S_ISREG(st.st_mode) || S_ISDIR(st.st_mode) || S_ISFIFO(st.st_mode);
}

// The outcome of a call with an open file. Whether the file may be used was decided when it was opened, so "not found"
// and "not permitted" now come from a disk that has gone.
int resultOfOpen(ssize_t outcome) {
    return outcome >= 0 ? 0 : errno == EINVAL || isFailure(errno) ? -errno : -EIO;
}

bool isSameFile(const struct stat& a, const struct stat& b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

bool isAscii(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
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
        for (const int form : {UTF8PROC_COMPOSE, UTF8PROC_DECOMPOSE}) {
            const std::string candidate = before + normalForm(name, form).value_or(name);
            stored = isEntry(stored) || !isEntry(candidate) ? stored : candidate;
        }
        start = end + 1;
    }
    return stored;
}

// True where files are the kernel's own state and a write may change the system.
bool isKernelState(const Descriptor& descriptor) {
    constexpr long kinds[] = {PROC_SUPER_MAGIC,   SYSFS_MAGIC,         DEBUGFS_MAGIC,  TRACEFS_MAGIC, SECURITYFS_MAGIC,
                              CGROUP_SUPER_MAGIC, CGROUP2_SUPER_MAGIC, EFIVARFS_MAGIC, BPF_FS_MAGIC};
    struct statfs volume;
    return fstatfs(descriptor.number, &volume) == 0 &&
           std::find(std::begin(kinds), std::end(kinds), volume.f_type) != std::end(kinds);
}

// `sync` is fsync or fdatasync. On a file system that has nothing to wait for it fails with EINVAL.
int syncDescriptor(const Descriptor& descriptor, int (*sync)(int)) {
    return !syncsChanges || sync(descriptor.number) == 0 || errno == EINVAL ? 0 : resultOfOpen(-1);
}

// Calls `change` with the entry at `path`, which need not exist, and syncs its directory. `change` returns 0 or a
// negated error number.
template <typename Change> int changeEntry(const std::string& path, Change change) {
    std::string place = storedSpelling(path);
    const std::string name = place.substr(place.rfind('/') + 1); // all of it without a slash
    place.resize(place.size() - name.size());
    const Descriptor directory = openBeneath(place, O_DIRECTORY | (syncsChanges ? O_RDONLY : O_PATH));
    if (directory.number < 0 || name.empty() || isKernelState(directory)) {
        return directory.number < 0 ? directory.number : -EPERM;
    }
    const int result = change(Entry{directory.number, place, name.c_str()});
    return result == 0 ? syncDescriptor(directory, fsync) : result;
}

// Some disks report the errors of a write only now.
int closeFile(Descriptor& file) {
    return resultOfOpen(close(std::exchange(file.number, -1)));
}

// Closes `file` after a change whose outcome was `result`, and checks that `path` still leads to it.
int finishWriting(Descriptor& file, const std::string& path, int result, struct stat& st) {
    for (const int error :
         {result, syncDescriptor(file, fdatasync), resultOfOpen(fstat(file.number, &st)), closeFile(file)}) {
        if (error != 0) {
            return error;
        }
    }
    // Some file systems do not count links; then the path has to lead to the file.
    struct stat found;
    return st.st_nlink > 0 || (lookUp(path, found).number >= 0 && isSameFile(found, st)) ? 0 : -ENOENT;
}
} // namespace

int openTree(const char* directory, bool sync) {
    const mode_t mask = umask(0);
    newFileMode &= ~mask;
    newDirectoryMode &= ~mask;
    syncsChanges = sync;
    tree = Descriptor(resultOf(open(directory, O_PATH | O_DIRECTORY | O_CLOEXEC)));
    ownDescriptors = Descriptor(resultOf(open("/proc/self/fd", O_PATH | O_DIRECTORY | O_CLOEXEC)));
    struct stat st = {};
    const int found = tree.number < 0 ? tree.number : lookUp("", st).number;
    treeHasLinks = st.st_nlink > 0;
    return std::min({found, ownDescriptors.number, 0});
}

bool isTreeGone() {
    struct stat st;
    return fstat(tree.number, &st) != 0 || (treeHasLinks && st.st_nlink == 0);
}

Descriptor lookUp(const std::string& path, struct stat& st) {
    Descriptor found = openBeneath(path, O_PATH);
    if (found.number == -ENOENT && !isAscii(path)) {
        found = openBeneath(storedSpelling(path), O_PATH);
    }
    const int known = found.number < 0 ? found.number : resultOfOpen(fstat(found.number, &st));
    const int wrong = known != 0 ? known : path.empty() && isTreeGone() ? -EIO : isShown(st) ? 0 : -ENOENT;
    return wrong != 0 ? Descriptor(wrong) : std::move(found);
}

int statEntry(const Entry& entry, struct stat& st) {
    st = {};
    int result = resultOf(fstatat(entry.directory, entry.name, &st, AT_SYMLINK_NOFOLLOW));
    result = S_ISLNK(st.st_mode) ? lookUp(entry.place + entry.name, st).number : result;
    return result >= 0 && !isShown(st) ? -ENOENT : std::min(result, 0);
}

Descriptor openInTree(const std::string& path, int access, struct stat& st) {
    Descriptor found = lookUp(path, st);
    if (found.number < 0) {
        return found;
    }
    if (access == O_RDONLY ? S_ISFIFO(st.st_mode) : !S_ISREG(st.st_mode) || isKernelState(found)) {
        return Descriptor(-EPERM);
    }
    const struct stat judged = st;
    // The name is quicker than what was found. But another program may have a lease, or something else the name: then
    // what was found is opened itself, however long that takes.
    Descriptor opened = openBeneath(path, access | O_NONBLOCK | O_NOCTTY);
    if (opened.number >= 0 && fstat(opened.number, &st) == 0 && isSameFile(st, judged)) {
        return opened;
    }
    const std::string own = std::to_string(found.number);
    opened = Descriptor(resultOf(openat(ownDescriptors.number, own.c_str(), access | O_CLOEXEC)));
    const int known = opened.number < 0 ? 0 : resultOfOpen(fstat(opened.number, &st));
    return known != 0 ? Descriptor(known) : std::move(opened);
}

ssize_t readFrom(const Descriptor& file, char* bytes, std::size_t length, std::uint64_t offset) {
    std::size_t count = 0;
    for (ssize_t got = 1; count < length && got != 0; count += std::max<ssize_t>(got, 0)) {
        got = pread(file.number, bytes + count, length - count, static_cast<off_t>(offset + count));
        if (got < 0 && errno != EINTR) {
            return resultOfOpen(got);
        }
    }
    return static_cast<ssize_t>(count);
}

int writeInTree(Descriptor file, const std::string& path, std::string_view bytes, std::int64_t offset,
                struct stat& st) {
    int result = 0;
    while (!bytes.empty() && result == 0) {
        const ssize_t written = pwrite(file.number, bytes.data(), bytes.size(), offset);
        if (written > 0) {
            bytes.remove_prefix(written);
            offset += written;
        } else if (written == 0 || errno != EINTR) {
            result = written == 0 ? -EIO : resultOfOpen(written);
        }
    }
    return finishWriting(file, path, result, st);
}

int truncateInTree(const std::string& path, std::int64_t size) {
    struct stat st;
    Descriptor file = openInTree(path, O_WRONLY, st);
    return file.number < 0 ? file.number : finishWriting(file, path, resultOfOpen(ftruncate(file.number, size)), st);
}

int createInTree(const std::string& path, std::optional<unsigned> mode) {
    const int result = !isUtf8(path) ? -EINVAL : changeEntry(path, [mode](const Entry& entry) {
        Descriptor file(resultOf(openat(entry.directory, entry.name, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC,
                                        (mode.value_or(newFileMode) & permissionBits) | ownersBits)));
        const int synced = file.number < 0 ? file.number : syncDescriptor(file, fsync);
        return synced != 0 ? synced : closeFile(file);
    });
    struct stat st;
    const int found = result == -EEXIST ? lookUp(path, st).number : result;
    return result != -EEXIST || found < 0 ? found : S_ISREG(st.st_mode) ? 0 : -EPERM;
}

int makeDirectoryInTree(const std::string& path) {
    return !isUtf8(path) ? -EINVAL : changeEntry(path, [](const Entry& entry) {
        return resultOf(mkdirat(entry.directory, entry.name, newDirectoryMode));
    });
}

int removeInTree(const std::string& path, int flags) {
    return changeEntry(path, [flags](const Entry& entry) {
        struct stat st;
        const int found = statEntry(entry, st);
        return found < 0 ? found : resultOf(unlinkat(entry.directory, entry.name, flags));
    });
}

int renameInTree(const std::string& from, const std::string& to, bool replace) {
    return !isUtf8(to) ? -EINVAL : changeEntry(from, [&](const Entry& source) {
        struct stat st;
        const int found = statEntry(source, st);
        return found < 0 ? found : changeEntry(to, [&](const Entry& target) {
            // What is not shown, like a link that leads outside, must not be replaced either.
            if (const int shown = statEntry(target, st); shown < 0 && (isFailure(shown) || st.st_mode != 0)) {
                return isFailure(shown) ? shown : -EEXIST;
            }
            const int flags = replace ? 0 : RENAME_NOREPLACE;
            const int result = resultOf(renameat2(source.directory, source.name, target.directory, target.name, flags));
            // Both parents are directories, so this error means that a directory was to replace a file.
            return result == -ENOTDIR ? -EEXIST : result;
        });
    });
}

bool isUtf8(std::string_view text) {
    const auto* bytes = reinterpret_cast<const utf8proc_uint8_t*>(text.data());
    // Without a buffer it only looks.
    return isAscii(text) || utf8proc_decompose(bytes, static_cast<utf8proc_ssize_t>(text.size()), nullptr, 0, {}) >= 0;
}
