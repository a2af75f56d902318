#include "InformFinder/name_forms.h"

#include "InformFinder/name_conversion.h"
#include "kelvane_vfs/checked_text.h"

#include <cstring>

namespace {

bool isAscii(const char* text, std::size_t length) {
    unsigned char bits = 0;
    for (std::size_t i = 0; i < length; ++i) {
        bits |= static_cast<unsigned char>(text[i]);
    }
    return bits < 0x80;
}

// Plain ASCII is the same in every form; it makes up nearly every path, and costs no conversion.
const char* convert(const char* text, char (&result)[nameFormSize], NameForm form) {
    const std::size_t length = std::strlen(text);
    if (isAscii(text, length)) {
        checkedCopyBytes(result, sizeof result, text, length);
        return result;
    }
    return convertName(text, result, form);
}

} // namespace

const char* precompose_string(const char* text) {
    static char result[nameFormSize];
    return convert(text, result, NameForm::nfc);
}

const char* decompose_string(const char* text) {
    static char result[nameFormSize];
    return convert(text, result, NameForm::nfd);
}

const char* precompose_string2(const char* text) {
    static char result[nameFormSize];
    return convert(text, result, NameForm::nfkc);
}

const char* decompose_string2(const char* text) {
    static char result[nameFormSize];
    return convert(text, result, NameForm::nfkd);
}
