#include "storage/trouble.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <microhttpd.h>

namespace {

constexpr struct {
    int error;
    unsigned status;
} statuses[] = {
    {ENOENT, 404}, {ENOTDIR, 404}, {EXDEV, 404},   {ELOOP, 404},  {ENAMETOOLONG, 404}, {EACCES, 403}, {EPERM, 403},
    {EROFS, 403},  {EISDIR, 403},  {ETXTBSY, 403}, {EEXIST, 409}, {ENOTEMPTY, 409},    {EBUSY, 409},  {EINVAL, 400},
    {ENOSPC, 507}, {EDQUOT, 507},  {EFBIG, 507},   {EMFILE, 503}, {ENFILE, 503},       {ENOMEM, 503}, {ENOBUFS, 503},
};

} // namespace

unsigned statusOf(int error) {
    for (const auto& known : statuses) {
        if (known.error == std::abs(error)) {
            return known.status;
        }
    }
    return MHD_HTTP_INTERNAL_SERVER_ERROR;
}

bool isFailure(int error) {
    return error != 0 && statusOf(error) >= MHD_HTTP_INTERNAL_SERVER_ERROR;
}

void say(const std::string& text) {
    std::fprintf(stderr, "kelvane_storage: %s\n", text.c_str());
}

void report(unsigned status, const char* detail) {
    using Clock = std::chrono::steady_clock;
    static std::atomic<Clock::time_point> dues[9] = {}; // from 500 on, and that of the crowd
    std::atomic<Clock::time_point>& due = dues[status == 0 ? 8 : status - MHD_HTTP_INTERNAL_SERVER_ERROR];
    const Clock::time_point now = Clock::now();
    Clock::time_point expected = due;
    if (now >= expected && due.compare_exchange_strong(expected, now + std::chrono::minutes(1))) {
        const char* what = status == 507   ? "the disk is full"
                           : status == 503 ? "memory or descriptors are short"
                           : status == 500 ? "the disk fails"
                                           : "clients have to wait";
        std::fprintf(stderr, "kelvane_storage: %s: %s\n", what, detail);
    }
}
