#include "kelvane_vfs/checked_text.h"
#include "kelvane_vfs/fuse_platform.h"
#include "kelvane_vfs/not_null.h"
#include "kelvane_vfs/operations.h"
#include "kelvane_vfs/process.h"
#include "kelvane_vfs/shutdown.h"
#include "kelvane_vfs/transport.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// The directory that FUSE mounts at: its first argument that is no option, wherever that stands. Null when there is no
// such argument or no such directory.
char* findMountDirectory(int argc, char* argv[]) {
    for (int i = 3; i < argc; ++i) {
        if (std::strcmp(argv[i], "-o") == 0) {
            ++i;
        } else if (argv[i][0] != '-') {
            return realpath(argv[i], nullptr);
        }
    }
    return nullptr;
}

} // namespace

int main(int argc, char* argv[]) {
    openStandardDescriptors();
    if (argc < 2) {
        return 1;
    }
    if (argc == 2 && std::strcmp(argv[1], "--version") == 0) {
        std::puts("kelvane_vfs " KELVANE_VERSION);
        return 0;
    }
    if (argc == 2) {
        std::fputs("usage: kelvane_vfs BASE_URL DISK_NAME [FUSE options ...] MOUNT_POINT\n", stderr);
        return 1;
    }
    forgetEnvironment();
    // Each line of the trace has to appear at once, and must not be lost when the process ends through abort().
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);

    mountPoint = argv[argc - 1];
    mountDirectory = findMountDirectory(argc, argv);
    startExitThread();
    checkedCopy(baseURL, sizeof baseURL, argv[1]);
    // A password or a secret in it would stay in the process list.
    std::memset(argv[1], 0, std::strlen(argv[1]));
    finderName = notNull(strdup(argv[2]));
    std::puts("kelvane_vfs starting");
    initLibCurl();
    platformBeforeLoop();
    const int fuseResult = fuse_main_real(argc - 2, argv + 2, &kelvane_filesystem_operations,
                                          sizeof kelvane_filesystem_operations, nullptr);
    cleanupLibCurl();
    std::puts("kelvane_vfs exiting");
    return fuseResult != 0 ? fuseResult : exitCode.load();
}
