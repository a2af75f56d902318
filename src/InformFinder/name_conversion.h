// The conversion of names into their normalisation forms, one file per platform; for name_forms.cpp alone.
#pragma once

#include <cstddef>

// Room for a form, terminator included.
constexpr std::size_t nameFormSize = 1024;

enum class NameForm { nfc, nfd, nfkc, nfkd };

// Writes `text` in that form into `result` and returns `result`, or null with `result` untouched when `text` is not
// valid UTF-8. A form that does not fit ends the process.
const char* convertName(const char* text, char (&result)[nameFormSize], NameForm form);
