// An open file descriptor, which is closed with its owner.
#pragma once

#include <cerrno>
#include <unistd.h>
#include <utility>

struct Descriptor {
    int number = -1; // a negated error number where nothing is open

    Descriptor() = default;
    // Takes what open(2) or a call like it has returned.
    explicit Descriptor(int opened) : number(opened >= 0 ? opened : -errno) {}
    Descriptor(Descriptor&& other) noexcept : number(std::exchange(other.number, -1)) {}
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

// What a function returns that opens nothing; `error` is a negated error number.
inline Descriptor notOpened(int error) {
    Descriptor none;
    none.number = error;
    return none;
}
