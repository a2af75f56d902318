// Allocations that fail end the process through abort(): nothing in the daemon could go on without them.
#pragma once

#include <cstdlib>

// Returns `block`, which is a new block or a library's new object.
template <typename T> T* notNull(T* block) {
    if (block == nullptr) {
        std::abort();
    }
    return block;
}
