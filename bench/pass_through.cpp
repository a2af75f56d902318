// Mounts a local directory through the FUSE library and does nothing else: every mount of this kind costs at least this
// much. It asks for the same request sizes as the daemon and takes the same options.
//   pass_through DIRECTORY [FUSE options ...] MOUNT_POINT
#define FUSE_USE_VERSION 26
#include <fuse.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace {

constexpr unsigned largestWrite = 131072;

int root = -1;

// The path relative to the directory.
const char* below(const char* path) {
    return path[1] != '\0' ? path + 1 : ".";
}

int result(int outcome) {
    return outcome < 0 ? -errno : 0;
}

int count(ssize_t outcome) {
    return outcome < 0 ? -errno : static_cast<int>(outcome);
}

void* start(struct fuse_conn_info* conn) {
    conn->want |= conn->capable & FUSE_CAP_BIG_WRITES;
    if (conn->max_write > largestWrite) {
        conn->max_write = largestWrite;
    }
    return nullptr;
}

int readDirectory(const char* path, void* buffer, fuse_fill_dir_t fill, off_t, struct fuse_file_info*) {
    const int descriptor = openat(root, below(path), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* stream = descriptor < 0 ? nullptr : fdopendir(descriptor);
    if (stream == nullptr) {
        return -errno;
    }
    struct stat st = {};
    while (const dirent* entry = readdir(stream)) {
        st.st_ino = entry->d_ino;
        st.st_mode = DTTOIF(entry->d_type);
        fill(buffer, entry->d_name, &st, 0);
    }
    closedir(stream);
    return 0;
}

int openFile(const char* path, int flags, mode_t mode, struct fuse_file_info* fi) {
    const int file = openat(root, below(path), flags | O_CLOEXEC, mode);
    fi->fh = static_cast<std::uint64_t>(file);
    return result(file);
}

int fileOf(const struct fuse_file_info* fi) {
    return static_cast<int>(fi->fh);
}

constexpr fuse_operations operations() {
    fuse_operations table = {};
    table.init = start;
    table.getattr = [](const char* path, struct stat* st) {
        return result(fstatat(root, below(path), st, AT_SYMLINK_NOFOLLOW));
    };
    table.readdir = readDirectory;
    table.create = [](const char* path, mode_t mode, struct fuse_file_info* fi) {
        return openFile(path, fi->flags | O_CREAT, mode, fi);
    };
    table.open = [](const char* path, struct fuse_file_info* fi) { return openFile(path, fi->flags, 0, fi); };
    table.read = [](const char*, char* buffer, std::size_t size, off_t offset, struct fuse_file_info* fi) {
        return count(pread(fileOf(fi), buffer, size, offset));
    };
    table.write = [](const char*, const char* buffer, std::size_t size, off_t offset, struct fuse_file_info* fi) {
        return count(pwrite(fileOf(fi), buffer, size, offset));
    };
    table.truncate = [](const char* path, off_t size) {
        const int file = openat(root, below(path), O_WRONLY | O_CLOEXEC);
        const int outcome = file < 0 ? -errno : result(ftruncate(file, size));
        close(file);
        return outcome;
    };
    table.release = [](const char*, struct fuse_file_info* fi) { return result(close(fileOf(fi))); };
    table.unlink = [](const char* path) { return result(unlinkat(root, below(path), 0)); };
    table.rename = [](const char* from, const char* to) {
        return result(renameat(root, below(from), root, below(to)));
    };
    table.mkdir = [](const char* path, mode_t mode) { return result(mkdirat(root, below(path), mode)); };
    table.rmdir = [](const char* path) { return result(unlinkat(root, below(path), AT_REMOVEDIR)); };
    table.statfs = [](const char*, struct statvfs* volume) { return result(fstatvfs(root, volume)); };
    return table;
}

constexpr fuse_operations passThrough = operations();

} // namespace

int main(int argc, char* argv[]) {
    root = argc > 2 ? open(argv[1], O_RDONLY | O_DIRECTORY | O_CLOEXEC) : -1;
    if (root < 0) {
        std::fputs("usage: pass_through DIRECTORY [FUSE options ...] MOUNT_POINT\n", stderr);
        return 1;
    }
    return fuse_main_real(argc - 1, argv + 1, &passThrough, sizeof passThrough, nullptr);
}
