#include "cache/volume_statistics.h"

#include "cache/dir_entry.h"
#include "kelvane_vfs/leak_on_purpose.h"
#include "kelvane_vfs/protocol.h"
#include "kelvane_vfs/reply_tree.h"
#include "kelvane_vfs/transport.h"

#include <cstdint>
#include <cstdlib>

namespace {

constexpr unsigned long noSetuidFlag = 2;

struct statvfs stbuf = {};

} // namespace

struct statvfs* DirGetVFS() {
    DirLock();
    const bool known = stbuf.f_namemax != 0;
    DirUnlock();
    if (known) {
        return &stbuf;
    }
    long status = 0;
    char* reply = getURL("", "action=statvfs", nullptr, nullptr, &status);
    if (reply == nullptr || status != 200) {
        // The body of a refusal is not released.
        leakOnPurpose(reply);
        return nullptr;
    }
    const cJSON* statistics = parseReply(reply);
    std::free(reply);
    if (statistics == nullptr) {
        return nullptr;
    }
    struct statvfs answer = {};
    answer.f_flag = noSetuidFlag;
    answer.f_bsize = requiredInt(statistics, "bsize");
    answer.f_frsize = requiredInt(statistics, "frsize");
    answer.f_blocks = static_cast<std::uint32_t>(requiredInt(statistics, "blocks"));
    answer.f_bfree = static_cast<std::uint32_t>(requiredInt(statistics, "bfree"));
    answer.f_bavail = static_cast<std::uint32_t>(requiredInt(statistics, "bavail"));
    answer.f_namemax = requiredInt(statistics, "namemax");
    releaseReply();
    DirLock();
    stbuf = answer;
    DirUnlock();
    return &stbuf;
}

void DirForgetVFS() {
    stbuf = {};
}
