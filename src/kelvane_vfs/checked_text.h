// Text in fixed buffers: every copy and every format is checked, and what does not fit ends the process through
// abort() instead of being cut, because a shortened path or query would name something else.
#pragma once

#include <cstddef>

// Copies the first `length` bytes of `text` into `buffer` (`size` bytes) and terminates them.
void checkedCopyBytes(char* buffer, std::size_t size, const char* text, std::size_t length);

// Copies the NUL-terminated `text` into `buffer` (`size` bytes), terminator included.
void checkedCopy(char* buffer, std::size_t size, const char* text);

// Appends `text` to the NUL-terminated text that `buffer` (`size` bytes) already holds.
void checkedAppend(char* buffer, std::size_t size, const char* text);

// printf into `buffer` (`size` bytes).
void checkedFormat(char* buffer, std::size_t size, const char* format, ...) __attribute__((format(printf, 3, 4)));
