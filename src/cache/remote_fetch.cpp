#include "cache/remote_fetch.h"

#include "kelvane_vfs/leak_on_purpose.h"
#include "kelvane_vfs/protocol.h"
#include "kelvane_vfs/reply_tree.h"
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

// Mode and link count are cut to 16 bits; everything else is widened with its sign.
constexpr AttributeField attributeFields[] = {
    {"s", [](struct stat& st, int value) { st.st_size = value; }},
    {"b", [](struct stat& st, int value) { st.st_blocks = value; }},
    {"m", [](struct stat& st, int value) { st.st_mode = static_cast<std::uint16_t>(value); }},
    {"nl", [](struct stat& st, int value) { st.st_nlink = static_cast<std::uint16_t>(value); }},
    {"at", [](struct stat& st, int value) { st.st_atime = value; }},
    {"mt", [](struct stat& st, int value) { st.st_mtime = value; }},
    {"ct", [](struct stat& st, int value) { st.st_ctime = value; }},
};

// Adds the child that one listing element describes. `st` serves all elements of a listing: an attribute that
// an element leaves out keeps the value of the last element that carried it.
void addListedChild(DirEntry* dir, const cJSON* element, struct stat& st) {
    const cJSON* name = cJSON_GetObjectItem(element, "n");
    if (name == nullptr) {
        return;
    }
    for (const AttributeField& field : attributeFields) {
        if (const cJSON* value = cJSON_GetObjectItem(element, field.key); value != nullptr) {
            field.store(st, value->valueint);
        }
    }
    const bool isDirectory = requiredInt(element, "t") == listedDirectory;
    // A name that is not a string is ignored.
    if (name->valuestring != nullptr) {
        DirEntryAdd(dir, name->valuestring, isDirectory ? directoryType : fileType, &st);
    }
}

} // namespace

void setOwner(struct stat* st) {
    st->st_uid = getuid();
    st->st_gid = getgid();
}

int DirParseRemoteAttr(const char* json, struct stat* st) {
    const cJSON* attributes = parseReply(json);
    if (attributes == nullptr) {
        return 0;
    }
    for (const AttributeField& field : attributeFields) {
        field.store(*st, requiredInt(attributes, field.key));
    }
    releaseReply();
    return 1;
}

int DirFetchRemoteAttr(const char* path, struct stat* st) {
    *st = {};
    long status = 0;
    char* reply = getURL(path, "action=props", nullptr, nullptr, &status);
    if (reply == nullptr || status != 200) {
        // The body of a refusal is not released.
        leakOnPurpose(reply);
        return 0;
    }
    DirParseRemoteAttr(reply, st);
    std::free(reply);
    setOwner(st);
    return 1;
}

int DirFetchRemoteDir(const char* path, DirEntry* dir) {
    // Before the request: its age counts from the question, and a listing that fails is not asked for again.
    dir->fetchTime = std::time(nullptr);
    char* reply = getURL(path, nullptr, nullptr, nullptr, nullptr);
    const cJSON* listing = parseReply(reply);
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
    releaseReply();
    return 1;
}
