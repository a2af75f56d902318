// macOS's build of the daemon with replacements: the desktop's functions print their calls, the FUSE library's loop is
// a short script, and Foundation is GNUstep's.
#include "InformFinder/finder_sidebar.h"
#include "kelvane_vfs/fuse_platform.h"
#include "kelvane_vfs/process.h"
#include "tests/scripted_calls.h"

#include <CoreServices/CoreServices.h>
#include <csignal>
#include <cstring>
#include <future>
#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

int kelvane_main(int argc, char* argv[]);

namespace {

std::promise<void> loopEnds;
bool prints = false;

// Prints the call and returns the object.
const char* give(const char* object, const std::string& call) {
    std::printf("%s", prints ? (call + "\n").c_str() : "");
    return object;
}

// The unit tests' tables know the home of the user whom they wrap around getuid.
struct Home : testing::Environment {
    void SetUp() override {
        words["/nonexistent"] = getpwuid(geteuid())->pw_dir;
    }
};
const auto* const atHome = testing::AddGlobalTestEnvironment(new Home);

} // namespace

CFURLRef CFURLCreateFromFileSystemRepresentation(const char* allocator, const UInt8* path, CFIndex length,
                                                 Boolean isDir) {
    const std::string text(reinterpret_cast<const char*>(path), length);
    return give("url", std::string(allocator) + (isDir == 1 ? " directory " : " file ") + text);
}

LSSharedFileListRef LSSharedFileListCreate(const char* allocator, const char* type, CFTypeRef options) {
    return give("list", std::string(allocator) + " " + type + (options == nullptr ? "" : " options"));
}

LSSharedFileListItemRef LSSharedFileListInsertItemURL(LSSharedFileListRef list, LSSharedFileListItemRef after,
                                                      CFTypeRef name, CFTypeRef icon, CFURLRef url, CFTypeRef,
                                                      CFTypeRef) {
    return give("item", std::string(list) + " " + after + " " + url + (name == icon && icon == nullptr ? "" : " name"));
}

void CFRelease(CFTypeRef object) {
    give("", std::string("release ") + static_cast<const char*>(object));
}

void fuse_exit_handler_internal_np() {
    loopEnds.set_value();
}

// Makes a kernel's first calls, raises a signal, and ends when it is told to.
int fuse_main_real(int argc, char* argv[], const struct fuse_operations* table, std::size_t size, void*) {
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

TEST(Platform, RunsAndRegisters) {
    const std::string path = words["/nonexistent"] + "/Library/kelvane/mount/storage/Documents";
    static char name[] = "Documents (storage)";
    const auto inform = [] { return prints = true, ::inform(name), 0; };
    const auto run = [] {
        std::string arguments[] = {"kelvane_vfs", baseURL, "Disk (srv)", "/mnt"};
        char* argv[] = {arguments[0].data(), arguments[1].data(), arguments[2].data(), arguments[3].data()};
        return kelvane_main(4, argv);
    };
    expectRow("", inform,
              "...; O allocator directory " + path +
                  "; O allocator favourites; O list last url; O release item; O release list; = 0");
    expectRow(
        "", run,
        R"(O thread started, pipe ready; O kelvane_vfs starting; O Disk (srv) /mnt 464; O settings up signal handlers
                 > GET /?action=props| => 404; E kelvane_getattr: /a; > GET /| => 200 {"entries":[{"n":"a","t":8}]}
                 E kelvane_setattr_x: /a; O got packet from signalHandler, trying to exit...
                 O kelvane_vfs exiting; = 1)");
}
