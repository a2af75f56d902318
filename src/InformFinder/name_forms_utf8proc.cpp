#include "InformFinder/name_forms.h"

#include "kelvane_vfs/checked_text.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <utf8proc.h>

namespace {

constexpr std::size_t resultSize = 1024;

// Room for decomposed code points. Composition joins at most three of them to each two bytes of result, so a
// text that does not fit here does not fit its result area either.
constexpr utf8proc_ssize_t codePointRoom = 4096;

bool isAscii(const char* text) {
    for (; *text != '\0'; ++text) {
        if (static_cast<unsigned char>(*text) >= 0x80) {
            return false;
        }
    }
    return true;
}

const char* convert(const char* text, char (&result)[resultSize], int form) {
    if (isAscii(text)) {
        checkedCopy(result, resultSize, text);
        return result;
    }
    static utf8proc_int32_t codePoints[codePointRoom];
    const auto options = static_cast<utf8proc_option_t>(UTF8PROC_NULLTERM | UTF8PROC_STABLE | form);
    utf8proc_ssize_t count =
        utf8proc_decompose(reinterpret_cast<const utf8proc_uint8_t*>(text), 0, codePoints, codePointRoom, options);
    if (count < 0) {
        return nullptr;
    }
    if (count > codePointRoom) {
        std::abort();
    }
    count = utf8proc_normalize_utf32(codePoints, count, options);
    std::size_t length = 0;
    for (utf8proc_ssize_t i = 0; i < count; ++i) {
        utf8proc_uint8_t bytes[4];
        const utf8proc_ssize_t size = utf8proc_encode_char(codePoints[i], bytes);
        checkedCopyBytes(result + length, resultSize - length, reinterpret_cast<const char*>(bytes), size);
        length += size;
    }
    return result;
}

} // namespace

const char* precompose_string(const char* text) {
    static char result[resultSize];
    return convert(text, result, UTF8PROC_COMPOSE);
}

const char* decompose_string(const char* text) {
    static char result[resultSize];
    return convert(text, result, UTF8PROC_DECOMPOSE);
}

const char* precompose_string2(const char* text) {
    static char result[resultSize];
    return convert(text, result, UTF8PROC_COMPOSE | UTF8PROC_COMPAT);
}

const char* decompose_string2(const char* text) {
    static char result[resultSize];
    return convert(text, result, UTF8PROC_DECOMPOSE | UTF8PROC_COMPAT);
}
