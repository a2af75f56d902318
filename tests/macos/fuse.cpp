// The FUSE library's loop as macOS's build of the daemon sees it: a short script.
#include "kelvane_vfs/fuse_platform.h"

#include <csignal>
#include <cstdio>
#include <future>

static std::promise<void> loopEnds;

void fuse_exit_handler_internal_np() {
    loopEnds.set_value();
}

// Makes a kernel's first calls, raises a signal, and ends when it is told to.
int fuse_main_real(int argc, char* argv[], const fuse_operations* table, std::size_t size, void*) {
    std::printf("%s %s %zu\n", argv[0], argv[argc - 1], size);
    struct stat st = {};
    table->init(nullptr);
    table->getattr("/a", &st);
    table->setattr_x("/a", nullptr);
    std::raise(SIGTERM);
    loopEnds.get_future().wait();
    table->destroy(nullptr);
    return 0;
}
