// The memory of bodies, which clients make the server hold: uploads until they are complete, responses until they are
// sent. Together they have one budget; std::bad_alloc is thrown beyond it, and becomes status 503.
#pragma once

#include <cstddef>
#include <new>
#include <string>

// Counts `bytes` as used, or throws std::bad_alloc.
void takeMemory(std::size_t bytes);
void giveMemoryBack(std::size_t bytes);

template <typename T> struct BodyAllocator {
    using value_type = T;

    BodyAllocator() = default;
    template <typename U> BodyAllocator(const BodyAllocator<U>&) {}

    T* allocate(std::size_t count) {
        takeMemory(count * sizeof(T));
        if (void* memory = ::operator new(count * sizeof(T), std::nothrow); memory != nullptr) {
            return static_cast<T*>(memory);
        }
        giveMemoryBack(count * sizeof(T));
        throw std::bad_alloc();
    }
    void deallocate(T* memory, std::size_t count) {
        ::operator delete(memory);
        giveMemoryBack(count * sizeof(T));
    }
    friend bool operator==(const BodyAllocator&, const BodyAllocator&) {
        return true;
    }
};

using Text = std::basic_string<char, std::char_traits<char>, BodyAllocator<char>>;
