// macOS's build of the daemon with replacements: the desktop's functions print their calls, the FUSE library's loop is
// a short script, and Foundation is GNUstep's.
#include "kelvane_vfs/fuse_platform.h"
#include "kelvane_vfs/process.h"
#include "tests/scripted_calls.h"

#include <csignal>
#include <future>
#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

int kelvane_main(int argc, char* argv[]);

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

struct Platform : testing::Environment {
    void SetUp() override {
        // The home of the user whom the unit tests wrap around getuid.
        words["HOME"] = std::string(getpwuid(geteuid())->pw_dir) + "/Library/kelvane/mount/";
        calls["run"] = [](Arguments a) {
            std::string url = baseURL;
            char* argv[] = {a[0], url.data(), a[1], a[2]};
            return kelvane_main(4, argv);
        };
    }
};
static const auto* const platform = testing::AddGlobalTestEnvironment(new Platform);

TEST(Platform, RunsAndRegisters) {
    expectRows(__FILE__, __LINE__, "", R"(
$ trace; $ inform Documents (storage); ...; E path: HOMEstorage/Documents; O CF: allocator HOMEstorage/Documents /
  O CF: allocator favourites; O CF: list last - - url - -; O CF: release item; O CF: release list
$ run kelvane_vfs,Disk (srv),/mnt; O thread started, pipe ready; O kelvane_vfs starting; O Disk (srv) /mnt 464
  O settings up signal handlers; > GET /?action=props|; < 404; E kelvane_getattr: /a; > GET /|
  < 200 {"entries":[{"n":"a","t":8}]}; E kelvane_setattr_x: /a; O got packet from signalHandler, trying to exit...
  O kelvane_vfs exiting; = 1
)");
}
