// What a crowd could use up, and what is given back at its owner's end: open files, and the memory of bodies. Clients
// make the server hold bodies, uploads until they are complete and replies until they are sent, so these have a budget.
#pragma once

#include <cerrno>
#include <cstddef>
#include <unistd.h>
#include <utility>

// What a system call has returned, or the negated error number.
template <typename Number> Number resultOf(Number returned) {
    return returned >= 0 ? returned : -errno;
}

// An open file descriptor; a negated error number where nothing is open.
struct Descriptor {
    int number = -EBADF;

    Descriptor() = default;
    explicit Descriptor(int opened) : number(opened) {}
    Descriptor(Descriptor&& other) noexcept : number(std::exchange(other.number, -EBADF)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(number, other.number);
        return *this;
    }
    ~Descriptor() {
        if (number >= 0) {
            close(number);
        }
    }
};

// A part of the budget.
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
