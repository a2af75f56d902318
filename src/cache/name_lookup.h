// The name-form look-up, the same for children and for extended attributes.
#pragma once

#include "InformFinder/name_forms.h"

#include <cstring>
#include <uthash.h>

// Finds `name` in a table keyed by name: as given, then in its NFC, NFKC, NFD and NFKD spelling. The first hit counts;
// a form into which the name cannot be converted is skipped. All four conversions are made on every look-up, in this
// order, also after a hit and without a table. The caller holds the cache's lock, because the spellings are in static
// buffers.
template <typename Record> Record* findInNameForms(Record* table, const char* name) {
    constexpr const char* (*forms[])(const char*) = {precompose_string, precompose_string2, decompose_string,
                                                     decompose_string2};
    Record* found = nullptr;
    if (table != nullptr) {
        HASH_FIND(hh, table, name, std::strlen(name), found);
    }
    for (const auto form : forms) {
        const char* spelling = form(name);
        if (found != nullptr || table == nullptr || spelling == nullptr || std::strcmp(spelling, name) == 0) {
            continue;
        }
        HASH_FIND(hh, table, spelling, std::strlen(spelling), found);
    }
    return found;
}
