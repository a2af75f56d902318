#include "cache/remote_fetch.h"

#include "kelvane_vfs/leak_on_purpose.h"
#include "kelvane_vfs/protocol.h"
#include "kelvane_vfs/reply_tree.h"
#include "kelvane_vfs/transport.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <string_view>
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

// The members of a listing element that are used, found in one pass over all of them.
struct ListedEntry {
    const cJSON* name;
    const cJSON* kind;
    const cJSON* attributes[std::size(attributeFields)];
};

// A key of one or two letters as a number, the same for upper and lower case; 0 for every other key.
constexpr unsigned packedKey(const char* key) {
    constexpr unsigned smallLetter = 0x20;
    const auto first = static_cast<unsigned char>(key[0]);
    if (first == '\0') {
        return 0;
    }
    const auto second = static_cast<unsigned char>(key[1]);
    if (second == '\0') {
        return first | smallLetter;
    }
    return key[2] != '\0' ? 0 : (first | smallLetter) | (second | smallLetter) << 8U;
}

// True for a key of lower-case letters. Its number stands for no other key, because no byte but the letter itself and
// its upper case becomes a lower-case letter.
constexpr bool isPackedExactly(const char* key) {
    const std::string_view letters = key;
    return !letters.empty() && letters.size() <= 2 &&
           std::all_of(letters.begin(), letters.end(), [](char letter) { return letter >= 'a' && letter <= 'z'; });
}
static_assert(isPackedExactly("n") && isPackedExactly("t") &&
              std::all_of(std::begin(attributeFields), std::end(attributeFields),
                          [](const AttributeField& field) { return isPackedExactly(field.key); }));

// The member of `entry` called `key`, or null for a key that is not used.
const cJSON** memberOf(ListedEntry& entry, const char* key) {
    const unsigned packed = packedKey(key);
    if (packed == packedKey("n")) {
        return &entry.name;
    }
    if (packed == packedKey("t")) {
        return &entry.kind;
    }
    for (std::size_t i = 0; i < std::size(attributeFields); ++i) {
        if (packed == packedKey(attributeFields[i].key)) {
            return &entry.attributes[i];
        }
    }
    return nullptr;
}

// Of members whose keys differ at most in upper and lower case the first one counts, as in a look-up by cJSON.
ListedEntry readListedEntry(const cJSON* element) {
    ListedEntry entry = {};
    for (const cJSON* member = element->child; member != nullptr; member = member->next) {
        const cJSON** place = member->string != nullptr ? memberOf(entry, member->string) : nullptr;
        if (place != nullptr && *place == nullptr) {
            *place = member;
        }
    }
    return entry;
}

void setOwner(struct stat* st) {
    st->st_uid = getuid();
    st->st_gid = getgid();
}

// Adds the child that one listing element describes. `st` serves all elements of a listing: an attribute that
// an element leaves out keeps the value of the last element that carried it.
void addListedChild(DirEntry* dir, const cJSON* element, struct stat& st) {
    const ListedEntry entry = readListedEntry(element);
    if (entry.name == nullptr) {
        return;
    }
    for (std::size_t i = 0; i < std::size(attributeFields); ++i) {
        if (entry.attributes[i] != nullptr) {
            attributeFields[i].store(st, entry.attributes[i]->valueint);
        }
    }
    if (entry.kind == nullptr) {
        endForMissingMember("t");
    }
    const bool isDirectory = entry.kind->valueint == listedDirectory;
    // A name that is not a string is ignored.
    if (entry.name->valuestring != nullptr) {
        DirEntryAdd(dir, entry.name->valuestring, isDirectory ? directoryType : fileType, &st);
    }
}

} // namespace

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
    // Before the request: it rebuilds its path through the look-up, which would otherwise ask for this
    // listing again without end.
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
