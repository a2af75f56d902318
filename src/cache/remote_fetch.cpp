#include "cache/remote_fetch.h"

#include "kelvane_vfs/protocol.h"
#include "kelvane_vfs/transport.h"

#include <cstdio>
#include <cstdlib>
#include <unistd.h>

namespace {

constexpr int listedDirectory = 4;

struct AttributeField {
    const char* key;
    void (*store)(struct stat& st, int value);
};

// Mode and link count travel in 16 bits; everything else is widened with its sign.
constexpr AttributeField attributeFields[] = {
    {"s", [](struct stat& st, int value) { st.st_size = value; }},
    {"b", [](struct stat& st, int value) { st.st_blocks = value; }},
    {"m", [](struct stat& st, int value) { st.st_mode = static_cast<std::uint16_t>(value); }},
    {"nl", [](struct stat& st, int value) { st.st_nlink = static_cast<std::uint16_t>(value); }},
    {"at", [](struct stat& st, int value) { st.st_atime = value; }},
    {"mt", [](struct stat& st, int value) { st.st_mtime = value; }},
    {"ct", [](struct stat& st, int value) { st.st_ctime = value; }},
};

void setOwner(struct stat* st) {
    st->st_uid = getuid();
    st->st_gid = getgid();
}

// Adds the child that one listing element describes. `st` serves all elements of a listing: an attribute that
// an element leaves out keeps the value of the last element that carried it.
void addListedChild(DirEntry* dir, const cJSON* element, struct stat& st) {
    const cJSON* name = cJSON_GetObjectItem(element, "n");
    if (name == nullptr) {
        return;
    }
    for (const AttributeField& field : attributeFields) {
        const cJSON* member = cJSON_GetObjectItem(element, field.key);
        if (member != nullptr) {
            field.store(st, member->valueint);
        }
    }
    const bool isDirectory = requiredInt(element, "t") == listedDirectory;
    // What is not a string is no name.
    if (name->valuestring != nullptr) {
        DirEntryAdd(dir, name->valuestring, isDirectory ? directoryType : fileType, &st);
    }
}

} // namespace

int DirParseRemoteAttr(const char* json, struct stat* st) {
    cJSON* attributes = cJSON_Parse(json);
    if (attributes == nullptr) {
        return 0;
    }
    for (const AttributeField& field : attributeFields) {
        field.store(*st, requiredInt(attributes, field.key));
    }
    cJSON_Delete(attributes);
    return 1;
}

int DirFetchRemoteAttr(const char* path, struct stat* st) {
    *st = {};
    long status = 0;
    char* reply = getURL(path, "action=props", nullptr, nullptr, &status);
    if (reply == nullptr || status != 200) {
        // The body of a refusal is not released.
        return 0;
    }
    DirParseRemoteAttr(reply, st);
    std::free(reply);
    setOwner(st);
    return 1;
}

int DirFetchRemoteDir(const char* path, DirEntry* dir) {
    // Before the request: it rebuilds its path through the look-up, which would otherwise ask for this
    // listing again without end.
    dir->fetchTime = std::time(nullptr);
    char* reply = getURL(path, nullptr, nullptr, nullptr, nullptr);
    cJSON* listing = cJSON_Parse(reply);
    if (listing == nullptr) {
        std::printf("Failed to parse: %s\n", reply);
        std::free(reply);
        return 0;
    }
    std::free(reply);

    const cJSON* entries = requiredMember(listing, "entries");
    struct stat st = {};
    setOwner(&st);
    const cJSON* element = nullptr;
    cJSON_ArrayForEach(element, entries) {
        addListedChild(dir, element, st);
    }
    cJSON_Delete(listing);
    return 1;
}
