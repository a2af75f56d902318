#include "kelvane_vfs/protocol.h"

#include "kelvane_vfs/reply_tree.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>

namespace {

constexpr int accessModeBits = 3;
static_assert(O_RDONLY == 0 && O_WRONLY == 1 && O_RDWR == 2, "access modes pass unchanged");

struct FlagPair {
    int local;
    int service;
};

constexpr FlagPair flagPairs[] = {
    {O_NONBLOCK, 0x4000}, {O_APPEND, 0x2000}, {O_NOFOLLOW, 0x400000},
    {O_CREAT, 0x0100},    {O_TRUNC, 0x1000},  {O_EXCL, 0x0200},
};

} // namespace

const cJSON* requiredMember(const cJSON* object, const char* key) {
    const cJSON* member = cJSON_GetObjectItem(object, key);
    if (member == nullptr) {
        std::fprintf(stderr, "The service's reply lacks the member \"%s\".\n", key);
        std::abort();
    }
    return member;
}

int requiredInt(const cJSON* object, const char* key) {
    return requiredMember(object, key)->valueint;
}

int parse_jsonp_response(long status, const char* body) {
    if (body == nullptr || status != 200) {
        return 0;
    }
    const cJSON* envelope = parseReply(body);
    if (envelope == nullptr) {
        return 0;
    }
    const int code = requiredInt(envelope, "hc");
    releaseReply();
    if (code == 200) {
        return 0;
    }
    std::fputs(code == 409 ? "  -> cannot overwrite\n" : "  -> FAILED\n", stderr);
    return -ENOENT;
}

int open_flags_local_to_kelv(int flags) {
    int result = flags & accessModeBits;
    for (const FlagPair& pair : flagPairs) {
        if ((flags & pair.local) != 0) {
            result |= pair.service;
        }
    }
    return result;
}
