#include "InformFinder/name_forms.h"

#include "kelvane_vfs/checked_text.h"

namespace {

bool isAscii(const char* text) {
    for (; *text != '\0'; ++text) {
        if (static_cast<unsigned char>(*text) >= 0x80) {
            return false;
        }
    }
    return true;
}

// Plain ASCII is the same in every form; it makes up nearly every path, and costs no conversion.
const char* convert(const char* text, char (&result)[nameFormSize], NameForm form) {
    if (isAscii(text)) {
        checkedCopy(result, sizeof result, text);
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
