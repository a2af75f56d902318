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
    struct statvfs* result = &stbuf;
    if (stbuf.f_namemax == 0) {
        stbuf = {};
        long status = 0;
        char* reply = getURL("", "action=statvfs", nullptr, nullptr, &status);
        const cJSON* statistics = nullptr;
        // The body of a refusal is not released.
        if (reply != nullptr && status == 200) {
            statistics = parseReply(reply);
            std::free(reply);
        } else {
            leakOnPurpose(reply);
        }
        if (statistics != nullptr) {
            stbuf.f_flag = noSetuidFlag;
            stbuf.f_bsize = requiredInt(statistics, "bsize");
            stbuf.f_frsize = requiredInt(statistics, "frsize");
            stbuf.f_blocks = static_cast<std::uint32_t>(requiredInt(statistics, "blocks"));
            stbuf.f_bfree = static_cast<std::uint32_t>(requiredInt(statistics, "bfree"));
            stbuf.f_bavail = static_cast<std::uint32_t>(requiredInt(statistics, "bavail"));
            stbuf.f_namemax = requiredInt(statistics, "namemax");
            releaseReply();
        } else {
            result = nullptr;
        }
    }
    DirUnlock();
    return result;
}

void DirForgetVFS() {
    stbuf = {};
}
