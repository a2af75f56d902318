// The four Unicode normalisation forms of a name. Each function takes a NUL-terminated UTF-8 string and
// returns it in its form, in a static buffer of its own that the next call of the same function overwrites;
// null when the input is not valid UTF-8. A result may have 1023 bytes and its terminator; a longer one ends the
// process. The caller makes sure that only one thread at a time calls them.
#pragma once

// Canonical composition (NFC).
const char* precompose_string(const char* text);

// Canonical decomposition (NFD).
const char* decompose_string(const char* text);

// Compatibility composition (NFKC).
const char* precompose_string2(const char* text);

// Compatibility decomposition (NFKD).
const char* decompose_string2(const char* text);
