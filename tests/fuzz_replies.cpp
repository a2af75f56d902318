// libFuzzer target: gives any reply to each of the daemon's calls that read one. A reply that ends the daemon through
// abort() is allowed; everything else that goes wrong is a finding.
#include "cache/refresh.h"
#include "cache/remote_fetch.h"
#include "cache/root.h"
#include "cache/volume_statistics.h"
#include "kelvane_vfs/protocol.h"
#include "kelvane_vfs/reply_tree.h"

#include <csetjmp>
#include <cstring>
#include <string>

static std::string body;
static std::jmp_buf aborted;

// These replace the transport and abort() (linked with --wrap).
extern "C" char* __wrap_getURL(const char*, const char*, std::size_t*, char*, long* status) {
    if (status != nullptr) {
        *status = 200;
    }
    return strdup(body.c_str());
}
extern "C" [[noreturn]] void __wrap_abort() {
    std::longjmp(aborted, 1);
}

extern "C" int LLVMFuzzerTestOneInput(const char* data, std::size_t size) {
    body.assign(data, size);
    void (*const calls[])() = {DirInit,
                               [] { DirFetchRemoteDir("/", dirEntryTop); },
                               [] { DirForgetVFS(), DirGetVFS(); },
                               [] { DirUpdateWithResponse("/x", body.c_str()); },
                               [] { parse_jsonp_response(200, body.c_str()); },
                               DirDestroy};
    for (const auto call : calls) {
        if (setjmp(aborted) == 0 && (call == DirInit || dirEntryTop != nullptr)) {
            call();
        }
        releaseReply();
    }
    return 0;
}
