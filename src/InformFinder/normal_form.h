// A text in a Unicode normalisation form, made by utf8proc; the server's search for a name's spelling uses it too.
#pragma once

#include <cstdlib>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <utf8proc.h>

// `text` in the form that `form` names (UTF8PROC_COMPOSE or UTF8PROC_DECOMPOSE, with or without UTF8PROC_COMPAT), or
// nothing when it is not valid UTF-8. Throws std::bad_alloc without memory.
inline std::optional<std::string> normalForm(std::string_view text, int form) {
    // utf8proc drops this letter behind a Hangul syllable. It begins a sequence of its own, composes with nothing and
    // is in no decomposition, so the texts before and behind it are converted and the letter is copied.
    constexpr std::string_view copied = "\u11a7";
    std::string result;
    for (;;) {
        const std::string_view run = text.substr(0, text.find(copied));
        utf8proc_uint8_t* mapped = nullptr;
        const utf8proc_ssize_t length = utf8proc_map(reinterpret_cast<const utf8proc_uint8_t*>(run.data()),
                                                     static_cast<utf8proc_ssize_t>(run.size()), &mapped,
                                                     static_cast<utf8proc_option_t>(UTF8PROC_STABLE | form));
        if (length == UTF8PROC_ERROR_NOMEM) {
            throw std::bad_alloc();
        }
        if (length < 0) {
            return std::nullopt;
        }
        result.append(reinterpret_cast<const char*>(mapped), length);
        std::free(mapped);
        if (run.size() == text.size()) {
            return result;
        }
        result += copied;
        text.remove_prefix(run.size() + copied.size());
    }
}
