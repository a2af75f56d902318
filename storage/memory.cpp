#include "storage/memory.h"

#include <atomic>

namespace {

constexpr std::size_t budget = 256UL * 1024 * 1024;

std::atomic<std::size_t> used = 0;

} // namespace

void takeMemory(std::size_t bytes) {
    if (used.fetch_add(bytes) + bytes > budget) {
        used -= bytes;
        throw std::bad_alloc();
    }
}

void giveMemoryBack(std::size_t bytes) {
    used -= bytes;
}
