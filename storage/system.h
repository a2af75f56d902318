// What every part needs: numbers, what system calls return and what that means for a request, open files, and the one
// budget of memory for all bodies that the server holds: uploads until they are complete, replies until they are sent.
#pragma once

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <string>
#include <string_view>
#include <system_error>
#include <unistd.h>
#include <utility>
#include <vector>

// What a system call has returned, or the negated error number.
template <typename Number> Number resultOf(Number returned) {
    return returned >= 0 ? returned : -errno;
}

// False if `text` is anything but a number that fits.
template <typename Number> bool parseNumber(std::string_view text, Number& number, int base = 10) {
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number, base);
    return error == std::errc() && stop == end;
}

// The HTTP status for an error number, negated or not.
unsigned statusOf(int error);

// True from 500 on: the error says nothing about the request.
bool isFailure(int error);

// A number that stands for something, which is given back at its owner's end.
template <typename Number, Number none, void (*giveBack)(Number)> struct Owner {
    Number number = none;

    Owner() = default;
    explicit Owner(Number owned) : number(owned) {}
    Owner(Owner&& other) noexcept : number(std::exchange(other.number, none)) {}
    Owner& operator=(Owner&& other) noexcept {
        std::swap(number, other.number);
        return *this;
    }
    ~Owner() {
        giveBack(number);
    }
};

void closeDescriptor(int number);
void returnMemory(std::size_t bytes);

// An open file descriptor; a negated error number where nothing is open.
using Descriptor = Owner<int, -EBADF, closeDescriptor>;
using MemoryShare = Owner<std::size_t, 0, returnMemory>; // bytes of the budget

// Adds `bytes` to `share`. Waits up to ten seconds while the budget is used up, then throws std::bad_alloc.
void takeMemory(MemoryShare& share, std::size_t bytes);
