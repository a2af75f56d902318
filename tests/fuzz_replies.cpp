// libFuzzer target: what the daemon makes of any reply. The first byte picks the request. A member that must be there
// ends the daemon through abort(), which counts as survived here; everything else that goes wrong is a finding.
#include "cache/life.h"
#include "cache/refresh.h"
#include "cache/remote_fetch.h"
#include "cache/volume_statistics.h"
#include "kelvane_vfs/protocol.h"
#include "kelvane_vfs/reply_tree.h"

#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

namespace {

const char* body = "";
std::size_t bodySize = 0;
std::jmp_buf aborted;

} // namespace

// In the place of the transport (linked with --wrap): every request is answered with the input.
char* wrappedGetURL(const char*, const char*, std::size_t*, char*, long*) asm("__wrap__Z6getURLPKcS0_PmPcPl");
char* wrappedGetURL(const char*, const char*, std::size_t*, char*, long* status) {
    if (status != nullptr) {
        *status = 200;
    }
    char* copy = static_cast<char*>(std::malloc(bodySize + 1));
    std::memcpy(copy, body, bodySize);
    copy[bodySize] = '\0';
    return copy;
}

[[noreturn]] void wrappedAbort() asm("__wrap_abort");
void wrappedAbort() { std::longjmp(aborted, 1); }

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    static const bool initialised = [] {
        std::freopen("/dev/null", "w", stdout);
        DirInit();
        return true;
    }();
    if (size == 0 || !initialised) {
        return 0;
    }
    body = reinterpret_cast<const char*>(data) + 1;
    bodySize = size - 1;
    struct stat st = {};
    DirEntry* root = DirEntryNew("", directoryType, &st);
    if (setjmp(aborted) == 0) {
        switch (data[0] % 5) {
        case 0:
            DirFetchRemoteDir("/", root);
            break;
        case 1:
            DirFetchRemoteAttr("/", &st);
            break;
        case 2:
            DirForgetVFS();
            DirGetVFS();
            break;
        case 3:
            DirUpdateWithResponse("/x", std::string(body, bodySize).c_str());
            break;
        default:
            parse_jsonp_response(200, std::string(body, bodySize).c_str());
        }
    }
    releaseReply();
    DirEntryFree(root);
    return 0;
}
