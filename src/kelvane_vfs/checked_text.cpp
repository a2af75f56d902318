#include "kelvane_vfs/checked_text.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

void checkedCopyBytes(char* area, std::size_t size, const char* text, std::size_t length) {
    if (length >= size) {
        std::abort();
    }
    std::memcpy(area, text, length);
    area[length] = '\0';
}

void checkedCopy(char* area, std::size_t size, const char* text) {
    checkedCopyBytes(area, size, text, std::strlen(text));
}

void checkedAppend(char* area, std::size_t size, const char* text) {
    const std::size_t used = std::strlen(area);
    checkedCopy(area + used, size - used, text);
}

void checkedFormat(char* area, std::size_t size, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(area, size, format, arguments);
    va_end(arguments);
    if (length < 0 || static_cast<std::size_t>(length) >= size) {
        std::abort();
    }
}
