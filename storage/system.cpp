#include "storage/system.h"

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <microhttpd.h>
#include <mutex>

namespace {
constexpr std::size_t budget = 256UL * 1024 * 1024;
constexpr std::chrono::seconds longestWait(10);

std::mutex mutex;
std::condition_variable givenBack;
std::size_t used = 0; // guarded by mutex

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
    const auto* const known = std::find_if(std::begin(statuses), std::end(statuses),
                                           [error](const auto& each) { return each.error == std::abs(error); });
    return known != std::end(statuses) ? known->status : MHD_HTTP_INTERNAL_SERVER_ERROR;
}

bool isFailure(int error) {
    return error != 0 && statusOf(error) >= MHD_HTTP_INTERNAL_SERVER_ERROR;
}

void closeDescriptor(int number) {
    if (number >= 0) {
        close(number);
    }
}

void returnMemory(std::size_t bytes) {
    if (bytes != 0) {
        const std::lock_guard lock(mutex);
        used -= bytes;
        givenBack.notify_all();
    }
}

void takeMemory(MemoryShare& share, std::size_t bytes) {
    std::unique_lock lock(mutex);
    if (used + bytes > budget && !givenBack.wait_for(lock, longestWait, [bytes] { return used + bytes <= budget; })) {
        throw std::bad_alloc();
    }
    used += bytes;
    share.number += bytes;
}
