#include "kelvane_vfs/operations.h"

#include "cache/dir_entry.h"
#include "cache/path_lookup.h"
#include "cache/refresh.h"
#include "kelvane_vfs/checked_text.h"
#include "kelvane_vfs/leak_on_purpose.h"
#include "kelvane_vfs/protocol.h"
#include "kelvane_vfs/transport.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace {

constexpr std::size_t queryBufferSize = 80;

int failed() {
    std::fputs("  -> FAILED\n", stderr);
    return -ENOENT;
}

// The handle carries the open flags to the writes; the service keeps nothing open.
void keepOpenFlags(struct fuse_file_info* fi) {
    fi->fh = static_cast<std::uint64_t>(static_cast<std::int64_t>(fi->flags));
}

// Sends one part of a write and takes over the attributes that its reply carries; false when the service
// refused it. The reply of a refused part is not freed.
bool writePart(const char* path, const char* data, std::int32_t length, long long offset,
               const struct fuse_file_info* fi) {
    const int flags = open_flags_local_to_kelv(static_cast<std::int32_t>(fi->fh));
    char query[queryBufferSize];
    checkedFormat(query, sizeof query, "action=write&flags=%i&offset=%lld", flags, offset);
    long status = 0;
    std::size_t received = 0;
    char* reply = postURL(path, query, data, length, &status, &received);
    if (status < 200 || status > 299) {
        leakOnPurpose(reply);
        return false;
    }
    DirUpdateWithResponse(path, reply);
    std::free(reply);
    return true;
}

} // namespace

int kelvane_create(const char* path, mode_t mode, struct fuse_file_info* fi) {
    std::fprintf(stderr, "kelvane_create: %s mode: %d flags: %d uid: %d\n", path, static_cast<int>(mode), fi->flags,
                 static_cast<int>(getuid()));
    char query[queryBufferSize];
    checkedFormat(query, sizeof query, "action=create&mode=%i", static_cast<int>(mode));
    // Whatever status comes back, the refresh finds out what the service really has.
    char* reply = getURL(path, query, nullptr, nullptr, nullptr);
    if (reply == nullptr) {
        return failed();
    }
    std::free(reply);
    DirUpdate(path);
    keepOpenFlags(fi);
    return 0;
}

int kelvane_open(const char* path, struct fuse_file_info* fi) {
    std::fprintf(stderr, "kelvane_open: %s flags: %d\n", path, fi->flags);
    if (DirGetEntry(path) == nullptr) {
        return failed();
    }
    keepOpenFlags(fi);
    return 0;
}

int kelvane_read(const char* path, char* buf, std::size_t size, off_t offset, struct fuse_file_info*) {
    const auto first = static_cast<unsigned long long>(offset);
    std::fprintf(stderr, "kelvane_read: %s (%llu, %lu)\n", path, first, static_cast<unsigned long>(size));
    char range[queryBufferSize];
    checkedFormat(range, sizeof range, "Range: bytes=%llu-%llu", first, first + size - 1);
    std::size_t received = 0;
    long status = 0;
    char* reply = getURL(path, nullptr, &received, range, &status);
    if (reply == nullptr) {
        return failed();
    }
    // With any status but 206 the body is the whole file, an error page too. It stays allocated when the read begins
    // behind its end.
    const bool isRange = status == 206;
    const std::size_t start = isRange ? 0 : first;
    if (!isRange && start >= received) {
        leakOnPurpose(reply);
        return 0;
    }
    const std::size_t count = std::min(size, received - start);
    std::memcpy(buf, reply + start, count);
    std::free(reply);
    return static_cast<std::int32_t>(count);
}

int kelvane_write(const char* path, const char* buf, std::size_t size, off_t offset, struct fuse_file_info* fi) {
    std::fprintf(stderr, "kelvane_write: path: %s size: %ld offset: %lld\n", path, static_cast<long>(size),
                 static_cast<long long>(offset));
    std::int32_t written = 0;
    while (static_cast<std::int32_t>(size) - written > 0) {
        const std::int32_t length = std::min(static_cast<std::int32_t>(size) - written, partSize);
        if (!writePart(path, buf + written, length, offset + written, fi)) {
            return -EPERM;
        }
        written += length;
    }
    return written;
}

int kelvane_truncate(const char* path, off_t size) {
    std::fprintf(stderr, "kelvane_truncate: %s %lld\n", path, static_cast<long long>(size));
    char query[queryBufferSize];
    checkedFormat(query, sizeof query, "action=truncate&offset=%lld", static_cast<long long>(size));
    return changeAndUpdate(path, query, Body::ignored);
}

int kelvane_flush(const char* path, struct fuse_file_info*) {
    std::fprintf(stderr, "kelvane_flush: %s\n", path);
    return 0;
}
