#include "InformFinder/favourite_volumes.h"
#include "InformFinder/finder_sidebar.h"
#include "InformFinder/name_forms.h"
#include "cache/path_lookup.h"
#include "cache/refresh.h"
#include "cache/remote_fetch.h"
#include "kelvane_vfs/protocol.h"
#include "tests/cache_fixture.h"

#include <atomic>
#include <cstring>
#include <fcntl.h>
#include <future>
#include <pwd.h>
#include <unistd.h>

namespace {

const std::string composed = "\xc3\xa9";     // é
const std::string decomposed = "e\xcc\x81";  // e and a combining acute
const std::string ligature = "\xef\xac\x81"; // the ligature fi

// Standard output belongs to what a death test reads.
template <typename Call> void withStdoutOnStderr(Call call) {
    dup2(2, 1);
    call();
}

DirEntry* newDirectory() {
    const struct stat st = {};
    return DirEntryNew("dir", directoryType, &st);
}

std::string namesOf(const DirEntry* dir) {
    std::string names;
    for (const DirEntry* child = dir->children; child != nullptr; child = static_cast<DirEntry*>(child->hh.next)) { names += std::string(child->name) + ","; }
    return names;
}

int countEntries(void* buffer, const char* name, const struct stat*, off_t) {
    *static_cast<std::string*>(buffer) += std::string(name) + ",";
    return 1;
}

} // namespace

TEST(NameForms, InvalidTextsAndStaticAreas) {
    for (const char* invalid : {"\xff", "a\xc3", "\xed\xa0\x80", "\xc0\x80", "\xf4\x90\x80\x80"}) {
        const char* before = precompose_string("before");
        EXPECT_EQ(precompose_string(invalid), nullptr);
        EXPECT_STREQ(before, "before");
        EXPECT_EQ(precompose_string2(invalid), nullptr);
        EXPECT_EQ(decompose_string(invalid), nullptr);
        EXPECT_EQ(decompose_string2(invalid), nullptr);
    }
    EXPECT_EQ(decompose_string("first"), decompose_string("second"));
}

TEST(NameFormsDeathTest, LongResultsEndTheProcess) {
    std::string accents;
    for (int i = 0; i < 342; ++i) {
        accents += composed; // 684 bytes composed, 1026 decomposed
    }
    EXPECT_EQ(precompose_string(accents.c_str()), accents);
    EXPECT_EXIT(decompose_string(accents.c_str()), testing::KilledBySignal(SIGABRT), "");
    EXPECT_EQ(std::string(1023, 'a'), precompose_string(std::string(1023, 'a').c_str()));
    EXPECT_EXIT(precompose_string(std::string(1024, 'a').c_str()), testing::KilledBySignal(SIGABRT), "");
    EXPECT_EXIT(precompose_string2((std::string(5000, 'a') + composed).c_str()), testing::KilledBySignal(SIGABRT), "");
}

TEST(Protocol, StatusEnvelope) {
    const struct {
        long status;
        const char* body;
        int result;
        const char* output;
    } rows[] = {
            {204, "{\"hc\":500}", 0, ""},
            {200, "no JSON", 0, ""},
            {200, "call({\"hc\":500})", 0, ""},
            {200, nullptr, 0, ""},
            {200, "{\"HC\":200}", 0, ""},
            {200, "{\"hc\":409}", -2, "  -> cannot overwrite\n"},
            {201, "{\"hc\":409}", 0, ""},
            {200, "{\"hc\":500}", -2, "  -> FAILED\n"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(outputOf([&] { EXPECT_EQ(parse_jsonp_response(row.status, row.body), row.result); }), row.output);
    }
    EXPECT_EXIT(parse_jsonp_response(200, "{}"), testing::KilledBySignal(SIGABRT), "");
}

TEST(Protocol, OpenFlags) {
    const struct {
        int local, service;
    } rows[] = {
            {O_RDONLY, 0},
            {O_WRONLY | O_CREAT | O_TRUNC, 0x1101},
            {O_RDWR | O_APPEND, 0x2002},
            {O_WRONLY | O_CREAT | O_EXCL, 0x0301},
            {O_NONBLOCK | O_NOFOLLOW, 0x404000},
            {O_CLOEXEC | O_NOCTTY | O_ASYNC | O_DIRECTORY, 0},
    };
    for (const auto& row : rows) { EXPECT_EQ(open_flags_local_to_kelv(row.local), row.service) << row.local; }
}

TEST(FinderSidebar, PathFromDiskName) {
    const struct {
        const char* name;
        const char* end;
    } rows[] = {
            {"Documents (storage)", "/Library/kelvane/mount/storage/Documents"},
            {"A (b) (c)", "/Library/kelvane/mount/c/A (b)"},
            {"Disk(srv)", "/Library/kelvane/mount/srv/Dis"},
            {"Disk", nullptr},
            {"Disk (srv", nullptr},
    };
    const char* home = getpwuid(getuid())->pw_dir;
    setenv("HOME", home, 1); // which macOS asks
    void* pool = openTemporaryPool();
    for (const auto& row : rows) {
        std::string name = row.name;
        char* path = pathFromDiskName(name.data());
        EXPECT_EQ(path == nullptr, row.end == nullptr) << name;
        EXPECT_TRUE(path == nullptr || std::string(path) == std::string(home) + row.end) << path;
        std::free(path);
        const std::string output = outputOf([&] { inform(name.data()); });
        EXPECT_TRUE(output.starts_with("informing finder to add disk to sidebar: " + name + "\n"));
        EXPECT_EQ(output.find("path: ") != std::string::npos, row.end != nullptr) << output;
    }
    std::string fits = std::string(64, 'd') + " (" + std::string(64, 's') + ")";
    char* path = pathFromDiskName(fits.data());
    EXPECT_TRUE(std::string(path).ends_with(std::string(64, 's') + "/" + std::string(64, 'd')));
    std::free(path);
    for (std::string name : {std::string("(srv)"), "d" + fits, std::string("Dis)(srv")}) {
        EXPECT_EXIT(pathFromDiskName(name.data()), testing::KilledBySignal(SIGABRT), "") << name;
    }
    releaseTemporaryPool(pool);
}

TEST(CacheRecords, ReplaceAndRemoveInAnySpelling) {
    DirEntry* dir = newDirectory();
    const struct stat st = {};
    for (const std::string& name : {composed, std::string("A"), std::string("a"), decomposed}) { DirEntryAdd(dir, name.c_str(), fileType, &st); }
    EXPECT_EQ(namesOf(dir), "A,a," + decomposed + ",");
    DirEntryDel(dir, composed.c_str());
    DirEntryDel(dir, "unknown");
    EXPECT_EQ(namesOf(dir), "A,a,");
    DirEntry* file = DirEntryFindChild(dir, "a");
    EXPECT_EQ(DirEntryAdd(file, "x", fileType, &st), nullptr);
    DirEntryDel(dir, "a");
    DirEntryDel(dir, "A");
    EXPECT_EQ(dir->children, nullptr);
    DirEntry* child = DirEntryAdd(dir, "\xff", directoryType, &st);
    EXPECT_EQ(DirEntryFindChild(dir, "\xff"), child);
    child->fetchTime = 1;
    DirEntryAdd(child, "below", fileType, &st);
    child = DirEntryAdd(dir, "\xff", directoryType, &st);
    EXPECT_EQ(child->children, nullptr);
    EXPECT_EQ(child->fetchTime, 0);
    // Of two stored spellings the one that the order of the forms reaches first wins.
    DirEntryAdd(dir, ligature.c_str(), fileType, &st);
    DirEntryAdd(dir, "fi", fileType, &st);
    EXPECT_STREQ(DirEntryFindChild(dir, ligature.c_str())->name, ligature.c_str());
    EXPECT_STREQ(DirEntryFindChild(dir, "fi")->name, "fi");
    EXPECT_EXIT(DirEntryFindChild(dir, std::string(1024, 'n').c_str()), testing::KilledBySignal(SIGABRT), "");
    DirEntryFree(dir);
}

TEST(Cache, SplitsPaths) {
    const struct { const char *path, *parent, *name; } rows[] = {{"/a", "/", "a"}, {"/a/b", "/a", "b"}, {"a", "/", "a"}, {"/a/b/", "/a/b", ""}, {"/", "/", ""}};
    for (const auto& row : rows) {
        char* parent = nullptr;
        const char* name = nullptr;
        EXPECT_EQ(DirExtractPathName(row.path, &parent, &name), 1);
        EXPECT_STREQ(parent, row.parent);
        EXPECT_STREQ(name, row.name);
        std::free(parent);
    }
}

TEST_F(CacheTest, ListsAndWalks) {
    list("", {element("dir", 4), element("file", 8, 7), element(composed, 4)});
    list("%2Fdir", {element("in", 8)});
    list("%2F%C3%A9", {element("x y~", 8)});
    EXPECT_EQ(DirGetEntry("/"), dirEntryTop);
    EXPECT_EQ(DirGetEntry("//"), dirEntryTop);
    expectRequests({});
    EXPECT_EQ(DirGetEntry("/file/x"), nullptr);
    EXPECT_EQ(DirGetEntry("/none/x"), nullptr);
    expectRequests({"GET /"});
    EXPECT_STREQ(DirGetEntry("dir//in/")->name, "in");
    EXPECT_STREQ(DirGetEntry(("/" + decomposed + "/x y~").c_str())->name, "x y~");
    expectRequests({"GET /%2Fdir", "GET /%2F%C3%A9"});
    char* path = nullptr;
    const std::string output = outputOf([&] { path = DirReadOriginalEncodingPath(("//" + decomposed + "/new//" + decomposed).c_str()); });
    EXPECT_EQ(path, "/" + composed + "/new/" + decomposed);
    std::free(path);
    EXPECT_EQ(output, "DirReadOriginalEncodingPathUnlocked: //" + decomposed + "/new//" + decomposed + "\nencoded_path=/" + composed + "\nencoded_path=/" +
                              composed + "/new\nencoded_path=/" + composed + "/new/" + decomposed + "\n");
    std::string names;
    EXPECT_EQ(DirRead("/", &names, countEntries), 1);
    EXPECT_EQ(names, "dir,file," + composed + ",");
    expectRequests({});
    // A failed read leaves one level of the lock with this thread; a listing elsewhere still succeeds on it.
    EXPECT_EQ(DirRead("/file", &names, countEntries), 0);
    EXPECT_EQ(DirRead("/none", &names, countEntries), 0);
    std::atomic<bool> started{false};
    std::atomic<bool> released{false};
    auto elsewhere = std::async(std::launch::async, [&] {
        started = true;
        return DirGetEntry("/file") != nullptr && released;
    });
    while (!started) { std::this_thread::yield(); }
    std::this_thread::sleep_for(std::chrono::milliseconds(20)); // the time to go wrong in
    released = true;
    DirUnlock();
    DirUnlock();
    EXPECT_TRUE(elsewhere.get());
}

TEST_F(CacheTest, EverySpellingReachesTheServicesOwn) {
    const struct { std::string stored, asked; } rows[] = {{composed, decomposed}, {decomposed, composed}, {"fi", ligature}, {composed, composed}};
    for (const auto& row : rows) {
        list("", {element(row.stored, 8)});
        dirEntryTop->fetchTime = 0;
        DirEntryDel(dirEntryTop, row.stored.c_str());
        EXPECT_NE(DirGetEntry(("/" + row.asked).c_str()), nullptr) << row.asked;
        char* path = DirReadOriginalEncodingPath(("/" + row.asked).c_str());
        EXPECT_EQ(path, "/" + row.stored);
        std::free(path);
        DirEntryDel(dirEntryTop, row.stored.c_str());
    }
}

TEST_F(CacheTest, DropsTheTreeAfterAMinute) {
    list("", {element("dir", 4)});
    list("%2Fdir", {});
    DirGetEntry("/dir/x");
    takeRequests(service);
    dirEntryTop->fetchTime = std::time(nullptr) - 59;
    DirGetEntry("/dir/x");
    expectRequests({});
    dirEntryTop->fetchTime = std::time(nullptr) - 61;
    DirGetEntry("/dir");
    EXPECT_STREQ(dirEntryTop->name, "/");
    expectRequests({"GET /?action=props", "GET /"});
    DirGetEntry("/dir/x");
    expectRequests({"GET /%2Fdir"});
}

// A listing that takes the cache over its minute must not pull the tree from under the walk that asked for
// it.
TEST_F(CacheTest, KeepsRecordsInUseThroughARequest) {
    list("", {element("dir", 4)});
    list("%2Fdir", {element("in", 8)});
    script("GET /%2Fdir%2Fin?action=props", 200, attributesJson(5, 0100644));
    const auto expire = [](const std::string&) { dirEntryTop->fetchTime = 1; };
    DirGetEntry("/dir");
    service.beforeReply = expire;
    EXPECT_STREQ(DirGetEntry("/dir/in")->name, "in");
    service.beforeReply = nullptr;
    DirGetEntry("/dir");
    takeRequests(service);
    service.beforeReply = expire;
    std::string names;
    EXPECT_EQ(DirRead("/dir", &names, countEntries), 1);
    EXPECT_EQ(names, "in,");
    service.beforeReply = nullptr;
    expectRequests({"GET /%2Fdir"});
    DirGetEntry("/dir");
    takeRequests(service);
    service.beforeReply = expire;
    DirUpdate("/dir/in");
    service.beforeReply = nullptr;
    // The listing of the parent is asked for while the update holds it, then the drop happens.
    expectRequests({"GET /%2Fdir", "GET /%2Fdir%2Fin?action=props"});
    EXPECT_EQ(recordsInUse, 0);
}

TEST_F(CacheTest, ListingElements) {
    setReply(service, "GET /",
            httpReply(200, listingJson({"{\"n\":\"a\",\"T\":4,\"S\":3,\"m\":16877,\"b\":1}", "{\"t\":4,\"s\":9}", "{\"n\":\"b\",\"t\":8}",
                                   "{\"n\":\"big\",\"t\":8,\"s\":3000000000,\"m\":4294967295,\"at\":-5}", "{\"n\":5,\"t\":8}", "{\"n\":\"\",\"t\":8}",
                                   "{\"n\":\"..\",\"t\":4}", "{\"n\":\"x/y\",\"t\":8}", "7"})));
    DirGetEntry("/a");
    EXPECT_EQ(namesOf(dirEntryTop), "a,b,big,,..,x/y,");
    // Every child has its line, but the kernel does not get what it cannot take.
    std::string names;
    const std::string lines = outputOf([&] { DirRead("/", &names, countEntries); });
    EXPECT_EQ(names, "a,b,big,..,");
    EXPECT_NE(lines.find("adding: \nCACHE-DirRead: adding: ..\nCACHE-DirRead: adding: x/y\n"), std::string::npos) << lines;
    const DirEntry* a = DirEntryFindChild(dirEntryTop, "a");
    const DirEntry* b = DirEntryFindChild(dirEntryTop, "b");
    const DirEntry* big = DirEntryFindChild(dirEntryTop, "big");
    EXPECT_EQ(a->type, directoryType);
    EXPECT_EQ(b->type, fileType);
    EXPECT_EQ(b->st.st_size, 3); // what an element leaves out stays from the one before
    EXPECT_EQ(b->st.st_mode, 16877U);
    EXPECT_EQ(b->st.st_uid, getuid());
    EXPECT_EQ(big->st.st_size, INT32_MAX);
    EXPECT_EQ(big->st.st_mode, 0xffffU);
    EXPECT_EQ(big->st.st_atime, -5);

    list("%2Fa", {element("kept", 8)});
    DirGetEntry("/a/kept");
    DirEntry* dir = DirEntryFindChild(dirEntryTop, "a");
    script("GET /%2Fa", 200, "oops");
    EXPECT_EQ(outputOf([&] { EXPECT_EQ(DirFetchRemoteDir("/a", dir), 0); }).find("Failed to parse: oops\n") != std::string::npos, true);
    EXPECT_EQ(namesOf(dir), "kept,");
    EXPECT_NE(dir->fetchTime, 0);
}

TEST_F(CacheTest, FetchesAttributes) {
    list("", {});
    const struct stat zeros = {};
    struct stat st = {};
    const std::string root = "GET /?action=props";
    script(root, 404, attributesJson(1, 0100644));
    EXPECT_EQ(DirFetchRemoteAttr("/", &st), 0);
    EXPECT_EQ(std::memcmp(&st, &zeros, sizeof st), 0);
    DirDestroy();
    DirDestroy();
    DirInit();
    EXPECT_TRUE(*dirEntryTop->name == '\0' && dirEntryTop->type == directoryType);
    EXPECT_EQ(std::memcmp(&dirEntryTop->st, &zeros, sizeof st), 0);
    script(root, 200, "no JSON");
    EXPECT_EQ(DirFetchRemoteAttr("/", &st), 1);
    EXPECT_TRUE(st.st_mode == 0 && st.st_uid == getuid() && st.st_gid == getgid());
    script(root, 200, attributesJson(12, 0100600));
    EXPECT_EQ(DirFetchRemoteAttr("/", &st), 1);
    EXPECT_TRUE(st.st_size == 12 && st.st_blocks == 8 && st.st_mode == 0100600 && st.st_nlink == 1);
    EXPECT_EQ(st.st_atime * 10000 + st.st_mtime * 100 + st.st_ctime, 112233);
}

TEST_F(CacheTest, VolumeStatistics) {
    const std::string rest = ",\"blocks\":9000000000,\"bfree\":-1,\"bavail\":6,\"namemax\":";
    script("GET /?action=statvfs", 503, "{}");
    EXPECT_EQ(DirGetVFS(), nullptr);
    script("GET /?action=statvfs", 200, "oops");
    EXPECT_EQ(DirGetVFS(), nullptr);
    script("GET /?action=statvfs", 200, "{\"bsize\":-4,\"frsize\":2" + rest + "0}");
    EXPECT_NE(DirGetVFS(), nullptr);
    script("GET /?action=statvfs", 200, "{\"bsize\":-4,\"frsize\":2" + rest + "255}");
    const struct statvfs* volume = DirGetVFS();
    EXPECT_EQ(DirGetVFS(), volume);
    EXPECT_EQ(volume->f_bsize, static_cast<unsigned long>(-4));
    EXPECT_EQ(volume->f_frsize, 2U);
    EXPECT_EQ(volume->f_blocks, 0x7fffffffU);
    EXPECT_EQ(volume->f_bfree, 0xffffffffU);
    EXPECT_EQ(volume->f_bavail, 6U);
    EXPECT_EQ(volume->f_files + volume->f_ffree + volume->f_favail + volume->f_fsid, 0U);
    EXPECT_EQ(volume->f_flag, 2U);
    EXPECT_EQ(volume->f_namemax, 255U);
    expectRequests(Requests(4, "GET /?action=statvfs"));
}

TEST_F(CacheTest, TransportBodies) {
    list("", {});
    DirGetEntry("/x");
    script("GET /%2Fe", 200);
    std::size_t received = 9;
    char* body = getURL("/e", nullptr, &received, nullptr, nullptr);
    EXPECT_EQ(received, 0U);
    EXPECT_STREQ(body, "");
    std::free(body);
    script("GET /%2Fe?", 500, std::string("a\0b", 3));
    std::string headers = "\nA: 1\n\nB: 2\n";
    long status = 0;
    const std::string output = outputOf([&] { body = getURL("/e", "", &received, headers.data(), &status); });
    EXPECT_EQ(std::string(body, received), std::string("a\0b", 3));
    std::free(body);
    EXPECT_EQ(status, 500);
    EXPECT_EQ(output, "DirReadOriginalEncodingPathUnlocked: e\nencoded_path=/e\ngetURL: 3 bytes retrieved\n"
                      "getURL: path: /e, query: \ngetURL: url: http://127.0.0.1:" +
                              std::to_string(service.port) + "/%2Fe?\n");
    script("PUT /%2Fe?q", 201, "reply");
    takeRequests(service);
    EXPECT_TRUE(outputOf([&] { body = postURL("/e", "q", "", 0, &status, &received); }).ends_with("\n0 bytes retrieved\n"));
    EXPECT_STREQ(body, "reply");
    std::free(body);
    std::free(postURL("/e", "q", "data", 4, &status, nullptr));
    EXPECT_EQ(status, 201);
    std::free(getURL("/e", nullptr, nullptr, nullptr, nullptr));
    const std::string put = "PUT /%2Fe?q | Content-Type: application/octetstream + ";
    expectRequests({put + "0 bytes", put + "4 bytes", "GET /%2Fe"});
    EXPECT_EQ(service.bodies["PUT /%2Fe?q"], "data");
}

TEST_F(CacheTest, TransportFailuresEndTheProcess) {
    list("", {});
    DirGetEntry("/x");
    closeConnection();
    setReply(service, "GET /?none", {"", true});
    setReply(service, "PUT /?reset", {"HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nhalf", false, true});
    EXPECT_EXIT(withStdoutOnStderr([&] { getURL("/", "none", nullptr, nullptr, nullptr); }), testing::ExitedWithCode(1), "CURL error: Server returned nothing");
    EXPECT_EXIT(postURL("/", "reset", "data", 4, nullptr, nullptr), testing::ExitedWithCode(1), "UPLOAD failed due to [A-Za-z]");
    checkedCopy(baseURL, sizeof baseURL, "http://127.0.0.1:1/");
    EXPECT_EXIT(withStdoutOnStderr([] { getURL("/", nullptr, nullptr, nullptr, nullptr); }), testing::ExitedWithCode(1), "CURL error: Couldn't connect");
    ReplyBuffer reply = {static_cast<char*>(std::calloc(1, 1)), 0};
    EXPECT_EXIT(withStdoutOnStderr([&] { WriteMemoryCallback("", 1, SIZE_MAX / 4, &reply); }), testing::ExitedWithCode(0),
            "not enough memory \\(realloc returned NULL\\)\n");
    std::free(reply.bytes);
    EXPECT_EXIT(DirReadOriginalEncodingPath(("/" + std::string(1000, 'a') + "/" + std::string(1000, 'b') + "/" + std::string(60, 'c')).c_str()),
            testing::KilledBySignal(SIGABRT), "");
}
