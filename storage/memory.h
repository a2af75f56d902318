// The memory of bodies, which clients make the server hold: uploads until they are complete, replies until they are
// sent. Together they have one budget.
#pragma once

#include <cstddef>
#include <utility>

// A part of the budget, given back at its owner's end.
struct MemoryShare {
    std::size_t bytes = 0;

    MemoryShare() = default;
    MemoryShare(MemoryShare&& other) noexcept : bytes(std::exchange(other.bytes, 0)) {}
    MemoryShare& operator=(MemoryShare&& other) noexcept {
        std::swap(bytes, other.bytes);
        return *this;
    }
    ~MemoryShare();
};

// Adds `bytes` to `share`. Waits up to ten seconds while the budget is used up, then throws std::bad_alloc.
void takeMemory(MemoryShare& share, std::size_t bytes);
