#include "kelvane_vfs/operations.h"

#include "cache/refresh.h"
#include "kelvane_vfs/leak_on_purpose.h"
#include "kelvane_vfs/protocol.h"
#include "kelvane_vfs/transport.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace {

// Sends one change and judges its answer: 0, or -2 after a line on standard error. The reply of a request
// that fails by its HTTP status is not freed.
int requestChange(const char* path, const char* query, Body body) {
    long status = 0;
    char* reply = getURL(path, query, nullptr, nullptr, &status);
    if (status != 200 && status != 204) {
        leakOnPurpose(reply);
        std::fputs("  -> FAILED\n", stderr);
        return -ENOENT;
    }
    const bool accepted = body == Body::ignored || parse_jsonp_response(status, reply) == 0;
    std::free(reply);
    return accepted ? 0 : -ENOENT;
}

} // namespace

int changeAndUpdate(const char* path, const char* query, Body body) {
    const int result = requestChange(path, query, body);
    if (result == 0) {
        DirUpdate(path);
    }
    return result;
}

int kelvane_mkdir(const char* path, mode_t) {
    std::fprintf(stderr, "kelvane_mkdir: %s\n", path);
    return changeAndUpdate(path, "action=mkdir", Body::statusEnvelope);
}

int kelvane_unlink(const char* path) {
    std::fprintf(stderr, "kelvane_unlink: %s\n", path);
    return changeAndUpdate(path, "action=unlink", Body::ignored);
}

int kelvane_rmdir(const char* path) {
    std::fprintf(stderr, "kelvane_rmdir: %s\n", path);
    return changeAndUpdate(path, "action=rmdir", Body::ignored);
}

int kelvane_rename(const char* from, const char* to) {
    std::fprintf(stderr, "kelvane_rename: %s -> %s\n", from, to);
    char* encoded = encodedServicePath(to);
    char* query = nullptr;
    if (asprintf(&query, "action=rename&to=%s&replace=1", encoded) < 0) {
        std::abort();
    }
    std::free(encoded);
    const int result = requestChange(from, query, Body::statusEnvelope);
    std::free(query);
    if (result == 0) {
        DirUpdate(from);
        DirUpdate(to);
    }
    return result;
}
