#include "cache/xattrs.h"

#include "cache/name_lookup.h"
#include "cache/path_lookup.h"
#include "kelvane_vfs/not_null.h"

#include <cstdlib>
#include <cstring>

namespace {

DirEntryXAttr* DirEntryFindXAttr(const DirEntry* entry, const char* name) {
    return findInNameForms(entry->xattrs, name);
}

} // namespace

char* DirEntryGetXAttrInt(DirEntry* entry, const char* name) {
    const DirEntryXAttr* attribute = DirEntryFindXAttr(entry, name);
    return attribute != nullptr ? attribute->value : nullptr;
}

void DirEntryRemoveXAttrInt(DirEntry* entry, const char* name) {
    DirEntryXAttr* attribute = DirEntryFindXAttr(entry, name);
    if (attribute == nullptr) {
        return;
    }
    HASH_DEL(entry->xattrs, attribute);
    std::free(attribute->name);
    std::free(attribute->value);
    std::free(attribute);
}

void DirEntryAddXAttrInt(DirEntry* entry, const char* name, const void* value, std::size_t size) {
    // Copied before the old attribute goes: the value may be the one that is stored under this name.
    auto* attribute = notNull(static_cast<DirEntryXAttr*>(std::calloc(1, sizeof(DirEntryXAttr))));
    attribute->name = notNull(strdup(name));
    attribute->value = notNull(static_cast<char*>(std::malloc(size)));
    std::memcpy(attribute->value, value, size);
    DirEntryRemoveXAttrInt(entry, name);
    HASH_ADD_KEYPTR(hh, entry->xattrs, name, std::strlen(name), attribute);
}

char* DirEntryGetXAttr(const char* path, const char* name) {
    DirEntry* entry = DirGetEntry(path);
    return entry != nullptr ? DirEntryGetXAttrInt(entry, name) : nullptr;
}

void DirEntryRemoveXAttr(const char* path, const char* name) {
    DirEntry* entry = DirGetEntry(path);
    if (entry != nullptr) {
        DirEntryRemoveXAttrInt(entry, name);
    }
}

void DirEntryAddXAttr(const char* path, const char* name, const void* value, std::size_t size) {
    DirEntry* entry = DirGetEntry(path);
    if (entry != nullptr) {
        DirEntryAddXAttrInt(entry, name, value, size);
    }
}
