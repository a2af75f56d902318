#include "InformFinder/name_conversion.h"
#include "InformFinder/normal_form.h"
#include "kelvane_vfs/checked_text.h"

const char* convertName(const char* text, char (&result)[nameFormSize], NameForm form) {
    // In the order of NameForm.
    constexpr int forms[] = {UTF8PROC_COMPOSE, UTF8PROC_DECOMPOSE, UTF8PROC_COMPOSE | UTF8PROC_COMPAT,
                             UTF8PROC_DECOMPOSE | UTF8PROC_COMPAT};
    const std::optional<std::string> converted = normalForm(text, forms[static_cast<std::size_t>(form)]);
    if (!converted) {
        return nullptr;
    }
    checkedCopy(result, sizeof result, converted->c_str());
    return result;
}
