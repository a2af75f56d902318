#include "kelvane_vfs/checked_text.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

void checkedCopyBytes(char* buffer, std::size_t size, const char* text, std::size_t length) {
    if (length >= size) {
        std::abort();
    }
    std::memcpy(buffer, text, length);
    buffer[length] = '\0';
}

void checkedCopy(char* buffer, std::size_t size, const char* text) {
    checkedCopyBytes(buffer, size, text, std::strlen(text));
}

void checkedAppend(char* buffer, std::size_t size, const char* text) {
    const std::size_t used = std::strlen(buffer);
    checkedCopy(buffer + used, size - used, text);
}

void checkedFormat(char* buffer, std::size_t size, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(buffer, size, format, arguments);
    va_end(arguments);
    if (length < 0 || static_cast<std::size_t>(length) >= size) {
        std::abort();
    }
}
