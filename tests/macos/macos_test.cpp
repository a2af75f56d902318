// macOS's build of the daemon under stand-ins: the desktop's calls are recorded, the FUSE library's loop is a short script,
// and Foundation is GNUstep's.
#include "InformFinder/favourite_volumes.h"
#include "InformFinder/finder_sidebar.h"
#include "InformFinder/name_forms.h"
#include "kelvane_vfs/fuse_platform.h"
#include "tests/cache_fixture.h"

#include <CoreServices/CoreServices.h>
#include <csignal>
#include <cstring>
#include <future>
#include <pwd.h>
#include <sstream>
#include <unicode/uchar.h>
#include <utf8proc.h>

int kelvane_main(int argc, char* argv[]);

// The name forms of Linux's build.
const char* linux_nfc(const char* text);
const char* linux_nfd(const char* text);
const char* linux_nfkc(const char* text);
const char* linux_nfkd(const char* text);

// GNUstep counts the objects of a class.
extern "C" void* objc_getClass(const char* name);
extern "C" unsigned char GSDebugAllocationActive(unsigned char active);
extern "C" int GSDebugAllocationCount(void* type);

namespace {

// Each of the desktop's objects is its own name; `missing` is the one that cannot be had.
char allocator[] = "allocator", favourites[] = "favourites", last[] = "last", url[] = "url", list[] = "list", item[] = "item";
const char* missing = nullptr;
Requests desktopCalls;
std::atomic<int> listReleases{0};
std::atomic<bool> answered{true}; // the first getattr, which does not wait for the registration
std::promise<void> loopEnds;

void record(std::string call, std::initializer_list<const void*> arguments) {
    for (const void* argument : arguments) { call += std::string(" ") + (argument != nullptr ? static_cast<const char*>(argument) : "0"); }
    desktopCalls.push_back(call);
}

template <typename Object> Object give(char* object) { return object == missing ? nullptr : reinterpret_cast<Object>(object); }

// Pools that were not released, and one more, which is kept for the next.
int pools() {
    releaseTemporaryPool(openTemporaryPool());
    return GSDebugAllocationCount(objc_getClass("NSAutoreleasePool"));
}

} // namespace

const CFAllocatorRef kCFAllocatorDefault = give<CFAllocatorRef>(allocator);
CFStringRef kLSSharedFileListFavoriteVolumes = give<CFStringRef>(favourites);
LSSharedFileListItemRef kLSSharedFileListItemLast = give<LSSharedFileListItemRef>(last);

CFURLRef CFURLCreateFromFileSystemRepresentation(CFAllocatorRef owner, const UInt8* path, CFIndex length, Boolean isDirectory) {
    const std::string text(reinterpret_cast<const char*>(path), length);
    record(isDirectory == 1 ? "directory" : "file", {owner, text.c_str()});
    return give<CFURLRef>(url);
}

LSSharedFileListRef LSSharedFileListCreate(CFAllocatorRef owner, CFStringRef type, CFTypeRef options) {
    answered.wait(false);
    record("open", {owner, type, options});
    return give<LSSharedFileListRef>(list);
}

LSSharedFileListItemRef LSSharedFileListInsertItemURL(
        LSSharedFileListRef into, LSSharedFileListItemRef after, CFStringRef name, IconRef icon, CFURLRef what, CFDictionaryRef set, CFArrayRef cleared) {
    record("insert", {into, after, name, icon, what, set, cleared});
    return give<LSSharedFileListItemRef>(item);
}

void CFRelease(CFTypeRef object) {
    record("release", {object});
    listReleases += object == list ? 1 : 0;
    listReleases.notify_all();
}

void fuse_exit_handler_internal_np() { loopEnds.set_value(); }

// Asks what a kernel would, is stopped by a signal, and ends when it is told to.
int fuse_main_real(int argc, char* argv[], const struct fuse_operations* table, std::size_t size, void* userData) {
    EXPECT_EQ(std::string(argv[0]) + argv[argc - 1], "Documents (storage)/mnt");
    EXPECT_EQ(userData, nullptr);
    std::vector<void*> slots(size / sizeof(void*));
    std::memcpy(slots.data(), table, size);
    std::string used;
    for (const void* slot : slots) { used += slot != nullptr ? 'x' : '.'; }
    EXPECT_EQ(used, "x...xxx.x.x.x.xxxxx.......x..xx.x.......................x.");

    EXPECT_EQ(table->init(nullptr), nullptr);
    struct stat st = {};
    EXPECT_EQ(table->getattr("/e\xcc\x81", &st), 0);
    EXPECT_EQ(st.st_size, 7);
    answered = true;
    answered.notify_all();
    EXPECT_EQ(table->setattr_x("/", nullptr), 0);
    std::raise(SIGTERM);
    EXPECT_EQ(loopEnds.get_future().wait_for(std::chrono::minutes(1)), std::future_status::ready);
    table->destroy(nullptr);
    return 0;
}

TEST(Platform, TheDaemonRunsAndStops) {
    ScriptedService service;
    startScript(service);
    setReply(service, "GET /?action=props", httpReply(200, attributesJson(4096, directoryMode)));
    setReply(service, "GET /", httpReply(200, listingJson({element("\xc3\xa9", 8, 7)})));
    std::string program = "kelvane_vfs", disk = "Documents (storage)", point = "/mnt";
    std::string base = "http://127.0.0.1:" + std::to_string(service.port) + "/";
    char* arguments[] = {program.data(), base.data(), disk.data(), point.data(), nullptr};
    finderInformed = listReleases = 0;
    answered = false;
    desktopCalls.clear();
    const std::string output = outputOf([&] { EXPECT_EQ(kelvane_main(4, arguments), 1); });
    for (const char* line : {"handleSignal: 15\n", "kelvane_setattr_x: /\n", "got packet from signalHandler", "kelvane_vfs exiting\n"}) {
        EXPECT_NE(output.find(line), std::string::npos) << line << output;
    }
    listReleases.wait(0);
    EXPECT_EQ(desktopCalls.size(), 5U);
    stopScript(service);
}

TEST(Platform, SidebarRegistration) {
    const std::string home = getpwuid(getuid())->pw_dir;
    setenv("HOME", home.c_str(), 1);
    const Requests calls = {"directory allocator " + home + "/Library/kelvane/mount/storage/Documents", "open allocator favourites 0",
            "insert list last 0 0 url 0 0", "release item", "release list"};
    const struct {
        const char* missing;
        std::string disk;
        Requests calls;
    } rows[] = {
            {nullptr, "Documents (storage)", calls},
            {item, "Documents (storage)", {calls[0], calls[1], calls[2], calls[4]}},
            {list, "Documents (storage)", {calls[0], calls[1]}},
            {url, "Documents (storage)", {calls[0]}},
            {nullptr, "Documents", {}},
    };
    GSDebugAllocationActive(1);
    for (const auto& row : rows) {
        missing = row.missing;
        desktopCalls.clear();
        int left = 0;
        // A thread of its own, because each keeps pools for the next use.
        std::thread([&] {
            const int before = pools();
            inform(std::string(row.disk).data());
            left = pools() - before;
        }).join();
        EXPECT_EQ(desktopCalls, row.calls);
        EXPECT_EQ(left, row.calls.empty() ? 1 : 0); // the one that is left to the end of the thread
    }
}

// Each line has a text in five columns: as it is, NFC, NFD, NFKC, NFKD. It is compared when both libraries know all its
// characters: their forms are the same in every later version of Unicode.
TEST(Platform, NameFormsOfBothPlatformsFollowTheConformanceData) {
    const struct {
        const char* name;
        const char* (*form)(const char*);
        int ofCanonical, ofCompatible;
    } rows[] = {{"NFC", precompose_string, 1, 3}, {"NFD", decompose_string, 2, 4}, {"NFKC", precompose_string2, 3, 3}, {"NFKD", decompose_string2, 4, 4},
            {"Linux NFC", linux_nfc, 1, 3}, {"Linux NFD", linux_nfd, 2, 4}, {"Linux NFKC", linux_nfkc, 3, 3}, {"Linux NFKD", linux_nfkd, 4, 4}};
    int compared = 0, skipped = 0, differences = 0;
    GSDebugAllocationActive(1);
    const int before = pools();
    FILE* data = popen("bzip2 -dc " KELVANE_NORMALIZATION_TEST, "r");
    for (char line[4096]; std::fgets(line, sizeof line, data) != nullptr;) {
        std::istringstream fields(line);
        std::string columns[5], field;
        bool known = true;
        for (std::string& column : columns) {
            std::getline(fields, field, ';');
            std::istringstream numbers(field);
            for (utf8proc_int32_t character = 0; numbers >> std::hex >> character;) {
                char bytes[4];
                column.append(bytes, utf8proc_encode_char(character, reinterpret_cast<utf8proc_uint8_t*>(bytes)));
                known = known && utf8proc_category(character) != UTF8PROC_CATEGORY_CN && u_isdefined(character) != 0;
            }
            // GNUstep fails where a text grows to more than three times its length; slashes join with nothing before them.
            column.append(16, '/');
        }
        const bool isTest = columns[4].size() > 16; // not a comment, nor the title of a part
        (known ? compared : skipped) += isTest ? 1 : 0;
        for (int column = 0; isTest && known && column < 5; ++column) {
            for (const auto& row : rows) {
                const char* result = row.form(columns[column].c_str());
                if ((result == nullptr || result != columns[column < 3 ? row.ofCanonical : row.ofCompatible]) && ++differences <= 5) {
                    ADD_FAILURE() << row.name << " of column " << column + 1 << " is " << (result != nullptr ? result : "null") << ": " << line;
                }
            }
        }
    }
    EXPECT_EQ(pclose(data), 0);
    EXPECT_EQ(differences, 0);
    EXPECT_GT(compared, 18000);
    EXPECT_EQ(pools(), before);
    std::printf("%d lines compared, %d skipped for characters that a library does not know\n", compared, skipped);
}
