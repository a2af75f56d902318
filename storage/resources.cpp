#include "storage/resources.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <new>

namespace {

constexpr std::size_t budget = 256UL * 1024 * 1024;
constexpr std::chrono::seconds longestWait(10);

std::mutex mutex;
std::condition_variable givenBack;
std::size_t used = 0; // guarded by mutex

} // namespace

MemoryShare::~MemoryShare() {
    if (bytes != 0) {
        const std::lock_guard lock(mutex);
        used -= bytes;
        givenBack.notify_all();
    }
}

void takeMemory(MemoryShare& share, std::size_t bytes) {
    std::unique_lock lock(mutex);
    if (!givenBack.wait_for(lock, longestWait, [bytes] { return used + bytes <= budget; })) {
        throw std::bad_alloc();
    }
    used += bytes;
    share.bytes += bytes;
}
