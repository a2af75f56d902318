// Blocks that are deliberately never released, marked where they are left behind.
#pragma once

#ifdef KELVANE_LEAK_CHECK
#include <sanitizer/lsan_interface.h>
#endif

// Keeps a leak check from reporting `block` (may be null) and what it points to; does nothing in other builds.
inline void leakOnPurpose([[maybe_unused]] const void* block) {
#ifdef KELVANE_LEAK_CHECK
    __lsan_ignore_object(block);
#endif
}
