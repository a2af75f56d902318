#include "InformFinder/name_forms.h"

#include "kelvane_vfs/checked_text.h"

#include <cstdlib>
#include <utf8proc.h>

namespace {

// Room for decomposed code points. Composition joins at most three of them to each two bytes of result, so a
// text that does not fit here does not fit its result area either.
constexpr utf8proc_ssize_t codePointRoom = 4096;

// In the order of NameForm.
constexpr int formOptions[] = {UTF8PROC_COMPOSE, UTF8PROC_DECOMPOSE, UTF8PROC_COMPOSE | UTF8PROC_COMPAT,
                               UTF8PROC_DECOMPOSE | UTF8PROC_COMPAT};

} // namespace

const char* convertName(const char* text, char (&result)[nameFormSize], NameForm form) {
    static utf8proc_int32_t codePoints[codePointRoom];
    const auto options = static_cast<utf8proc_option_t>(UTF8PROC_NULLTERM | UTF8PROC_STABLE |
                                                        formOptions[static_cast<std::size_t>(form)]);
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
        checkedCopyBytes(result + length, sizeof result - length, reinterpret_cast<const char*>(bytes), size);
        length += size;
    }
    return result;
}
