#include "kelvane_vfs/operations.h"

#include "cache/path_lookup.h"
#include "cache/xattrs.h"
#include "tests/cache_fixture.h"

#include <fcntl.h>
#include <sys/stat.h>

namespace {

const std::string encodedDir = "%2Fdir%20x";
const std::string done = "{\"hc\":200}";
const std::string clash = "{\"hc\":409}";
const std::string failed = "  -> FAILED\n";

struct OperationsTest : CacheTest {
    struct fuse_file_info file = {};

    void SetUp() override {
        CacheTest::SetUp();
        list("", {element("a.txt", 8, 5), element("dir x", 4), element("d", 4), element("\xc3\xa9", 8, 1)});
        list("%2Fd", {element("old", 8)});
        list(encodedDir, {});
        for (const char* path : {"/a.txt", "/d/old", "/dir x/none"}) { DirGetEntry(path); }
        takeRequests(service);
    }

    static struct stat attributesOf(const char* path, int result = 0) {
        struct stat st = {};
        EXPECT_EQ(kelvane_getattr(path, &st), result) << path;
        return st;
    }

    static std::string namesIn(const char* path, int result = 0) {
        std::string names;
        const auto add = [](void* buffer, const char* name, const struct stat*, off_t) {
            *static_cast<std::string*>(buffer) += std::string(name) + ",";
            return 0;
        };
        EXPECT_EQ(kelvane_readdir(path, &names, add, 0, nullptr), result) << path;
        return names;
    }
};

} // namespace

// Every change that succeeds or fails: its requests in order, its result, its lines, and what the cache then
// says.
TEST_F(OperationsTest, Changes) {
    const struct {
        const char* name;
        std::function<int()> call;
        int status;
        std::string body;
        int refreshed; // status of the attribute requests that follow
        int result;
        Requests requests;
        std::string lines;
    } rows[] = {
            {"mkdir", [] { return kelvane_mkdir("/dir x/new", 0700); }, 200, done, 200, 0,
                    {"GET /%2Fdir%20x%2Fnew?action=mkdir", "GET /%2Fdir%20x%2Fnew?action=props"}, ""},
            {"mkdir 204", [] { return kelvane_mkdir("/new", 0700); }, 204, "", 200, 0, {"GET /%2Fnew?action=mkdir", "GET /%2Fnew?action=props"}, ""},
            {"mkdir refused", [] { return kelvane_mkdir("/d", 0700); }, 200, clash, 200, -2, {"GET /%2Fd?action=mkdir"}, "  -> cannot overwrite\n"},
            {"mkdir failed", [] { return kelvane_mkdir("/new", 0700); }, 201, done, 200, -2, {"GET /%2Fnew?action=mkdir"}, failed},
            {"unlink", [] { return kelvane_unlink("/a.txt"); }, 204, "", 404, 0, {"GET /%2Fa.txt?action=unlink", "GET /%2Fa.txt?action=props"}, ""},
            {"unlink ignores the body", [] { return kelvane_unlink("/a.txt"); }, 200, clash, 404, 0,
                    {"GET /%2Fa.txt?action=unlink", "GET /%2Fa.txt?action=props"}, ""},
            {"unlink failed", [] { return kelvane_unlink("/a.txt"); }, 403, "", 200, -2, {"GET /%2Fa.txt?action=unlink"}, failed},
            {"rmdir", [] { return kelvane_rmdir("/d"); }, 200, "", 404, 0, {"GET /%2Fd?action=rmdir", "GET /%2Fd?action=props"}, ""},
            {"rmdir failed", [] { return kelvane_rmdir("/d"); }, 409, "", 200, -2, {"GET /%2Fd?action=rmdir"}, failed},
            {"rename", [] { return kelvane_rename("/a.txt", "/dir x/b.txt"); }, 200, done, 200, 0,
                    {"GET /%2Fa.txt?action=rename&to=%2Fdir%20x%2Fb.txt&replace=1", "GET /%2Fa.txt?action=props", "GET /%2Fdir%20x%2Fb.txt?action=props"}, ""},
            {"rename onto the service's spelling", [] { return kelvane_rename("/a.txt", "/e\xcc\x81"); }, 204, "", 200, 0,
                    {"GET /%2Fa.txt?action=rename&to=%2F%C3%A9&replace=1", "GET /%2Fa.txt?action=props", "GET /%2F%C3%A9?action=props"}, ""},
            {"rename refused", [] { return kelvane_rename("/a.txt", "/d"); }, 200, clash, 200, -2, {"GET /%2Fa.txt?action=rename&to=%2Fd&replace=1"},
                    "  -> cannot overwrite\n"},
            {"rename failed", [] { return kelvane_rename("/a.txt", "/d"); }, 500, "", 200, -2, {"GET /%2Fa.txt?action=rename&to=%2Fd&replace=1"}, failed},
            {"truncate", [] { return kelvane_truncate("/a.txt", 0); }, 200, "", 200, 0,
                    {"GET /%2Fa.txt?action=truncate&offset=0", "GET /%2Fa.txt?action=props"}, ""},
            {"truncate failed", [] { return kelvane_truncate("/a.txt", 5000000000); }, 507, "", 200, -2, {"GET /%2Fa.txt?action=truncate&offset=5000000000"},
                    failed},
            {"create", [this] { return kelvane_create("/d/c", 0100644, &file); }, 500, "", 200, 0,
                    {"GET /%2Fd%2Fc?action=create&mode=33188", "GET /%2Fd%2Fc?action=props"}, ""},
            {"create below nothing", [this] { return kelvane_create("/none/c", 0100644, &file); }, 200, "", 200, 0,
                    {"GET /%2Fnone%2Fc?action=create&mode=33188"}, ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        TearDown();
        SetUp();
        script(row.requests[0], row.status, row.body);
        for (std::size_t i = 1; i < row.requests.size(); ++i) { script(row.requests[i], row.refreshed, attributesJson(77, 0100644)); }
        const std::string output = outputOf([&] { EXPECT_EQ(row.call(), row.result); });
        EXPECT_TRUE(output.ends_with(row.lines)) << output;
        EXPECT_EQ(output.find("\n  -> ") != std::string::npos, !row.lines.empty());
        expectRequests(row.requests);
        if (row.requests.size() > 1) {
            const std::string& last = row.requests.back();
            char* path = curl_easy_unescape(nullptr, last.c_str() + 5, last.find('?') - 5, nullptr);
            EXPECT_EQ(attributesOf(path, row.refreshed == 200 ? 0 : -2).st_size, row.refreshed == 200 ? 77 : 0);
            curl_free(path);
            expectRequests({});
        }
    }
}

TEST_F(OperationsTest, EntryLines) {
    file.flags = 5;
    const struct {
        std::function<void()> call;
        std::string start;
    } rows[] = {
            {[] { kelvane_mkdir("/m", 0); }, "kelvane_mkdir: /m\n"},
            {[] { kelvane_unlink("/m"); }, "kelvane_unlink: /m\n"},
            {[] { kelvane_rmdir("/m"); }, "kelvane_rmdir: /m\n"},
            {[] { kelvane_rename("/m", "/n"); }, "kelvane_rename: /m -> /n\n"},
            {[] { kelvane_truncate("/m", 7); }, "kelvane_truncate: /m 7\n"},
            {[&] { kelvane_create("/m", 0100600, &file); }, "kelvane_create: /m mode: 33152 flags: 5 uid: "},
            {[&] { kelvane_open("/m", &file); }, "kelvane_open: /m flags: 5\n  -> FAILED\n"},
            {[&] { kelvane_read("/m", nullptr, 0, 4, &file); }, "kelvane_read: /m (4, 0)\n"},
            {[&] { kelvane_write("/m", "", 0, 4, &file); }, "kelvane_write: path: /m size: 0 offset: 4\n"},
            {[&] { kelvane_flush("/m", &file); }, "kelvane_flush: /m\n"},
            {[] { namesIn("/m", -2); }, "kelvane_readdir: /m\n"},
            {[] { kelvane_chmod("/a.txt", 0100600); }, "kelvane_chmod: /a.txt -> 33152\n"},
            {[] { kelvane_setattr_x("/a.txt", nullptr); }, "kelvane_setattr_x: /a.txt\n"},
            {[] { kelvane_listxattr("/m", nullptr, 0); }, "kelvane_listxattr: /m\n"},
            {[] { kelvane_removexattr("/m", "n"); }, "kelvane_removexattr: /m - n\n"},
    };
    for (const auto& row : rows) {
        testing::internal::CaptureStderr();
        row.call();
        const std::string output = testing::internal::GetCapturedStderr();
        EXPECT_TRUE(output.starts_with(row.start)) << output;
    }
    EXPECT_EQ(outputOf([] { attributesOf("/m", -2); }), "No attr for: /m\nkelvane_getattr: /m\n");
    EXPECT_EQ(attributesOf("/a.txt").st_mode, 0100644U);
}

TEST_F(OperationsTest, Reads) {
    const struct {
        int status;
        std::string body;
        std::size_t size;
        off_t offset;
        std::string result;
    } rows[] = {
            {206, "cdef", 4, 2, "cdef"},
            {206, "cdefgh", 4, 2, "cdef"},
            {206, "cd", 4, 2, "cd"},
            {200, "abcdef", 4, 1, "bcde"},
            {200, "abcdef", 4, 4, "ef"},
            {200, "abcdef", 4, 6, ""},
            {404, "error page", 100, 6, "page"},
            {416, "", 4, 0, ""},
    };
    for (const auto& row : rows) {
        script("GET /%2Fa.txt", row.status, row.body);
        std::string data(row.size, '?');
        const int count = kelvane_read("/a.txt", data.data(), row.size, row.offset, &file);
        EXPECT_EQ(data.substr(0, count), row.result);
        expectRequests({"GET /%2Fa.txt | Range: bytes=" + std::to_string(row.offset) + "-" + std::to_string(row.offset + row.size - 1)});
    }
}

TEST_F(OperationsTest, WritesInParts) {
    file.flags = O_RDWR | O_APPEND;
    EXPECT_EQ(kelvane_open("/a.txt", &file), 0);
    file.flags = 0;
    const std::string path = "PUT /%2Fa.txt?action=write&flags=8194&offset=";
    const std::string type = " | Content-Type: application/octetstream + ";
    const struct {
        std::size_t size;
        off_t offset;
        std::vector<std::pair<int, int>> parts; // length, status
        int result;
    } rows[] = {
            {0, 9, {}, 0},
            {131072, 0, {{131072, 200}}, 131072},
            {131073, 1, {{131072, 200}, {1, 299}}, 131073},
            {300000, 5000000000, {{131072, 201}, {131072, 204}, {37856, 200}}, 300000},
            {300000, 0, {{131072, 200}, {131072, 507}}, -1},
            {131072, 9, {{131072, 500}}, -1},
            {10, 7, {{10, 300}}, -1},
    };
    for (const auto& row : rows) {
        std::string data(row.size, '\0');
        std::generate(data.begin(), data.end(), [i = 0]() mutable { return static_cast<char>(i++ * 7 / 3); });
        Requests expected;
        off_t offset = row.offset;
        for (const auto& [length, status] : row.parts) {
            const std::string line = path + std::to_string(offset);
            setReply(service, line, httpReply(status, status == 204 ? "" : attributesJson(offset + length, 0100644)));
            expected.push_back(line + type + std::to_string(length) + " bytes");
            offset += length;
        }
        EXPECT_EQ(kelvane_write("/a.txt", data.data(), row.size, row.offset, &file), row.result);
        expectRequests(expected);
        std::string sent;
        offset = row.offset;
        for (const auto& [length, status] : row.parts) {
            sent += service.bodies[path + std::to_string(offset)];
            offset += length;
        }
        EXPECT_EQ(sent, data.substr(0, sent.size()));
    }
    EXPECT_EQ(attributesOf("/a.txt").st_size, 131072); // of the part before the refused one
    // A written entry comes anew with the local spelling, and so does the next request.
    for (const char* spelling : {"%C3%A9", "e%CC%81"}) {
        const std::string line = "PUT /%2F" + std::string(spelling) + "?action=write&flags=8194&offset=0";
        setReply(service, line, httpReply(200, attributesJson(2, 0100644)));
        EXPECT_EQ(kelvane_write("/e\xcc\x81", "xy", 2, 0, &file), 2);
        expectRequests({line + type + "2 bytes"});
    }
    EXPECT_EQ(namesIn("/"), "dir x,d,a.txt,e\xcc\x81,");
    EXPECT_EQ(attributesOf("/\xc3\xa9").st_size, 2);
    EXPECT_EQ(attributesOf("/\xc3\xa9").st_uid, getuid());
}

TEST_F(OperationsTest, ListingsAndStatistics) {
    EXPECT_EQ(namesIn("/d"), "old,");
    script("GET /%2Fd%2Fnew?action=mkdir", 200, done);
    script("GET /%2Fd%2Fnew?action=props", 200, attributesJson(0, directoryMode));
    list("%2Fd%2Fnew", {element("x", 8)});
    EXPECT_EQ(kelvane_mkdir("/d/new", 0755), 0);
    EXPECT_EQ(namesIn("/d"), "old,new,");
    EXPECT_EQ(namesIn("/d/new"), "x,");
    expectRequests({"GET /%2Fd%2Fnew?action=mkdir", "GET /%2Fd%2Fnew?action=props", "GET /%2Fd%2Fnew"});
    // Two failed listings leave the lock free for other threads.
    namesIn("/a.txt", -2);
    namesIn("/none", -2);
    std::thread([] { attributesOf("/a.txt"); }).join();
    struct statvfs volume = {};
    volume.f_bsize = 5;
    EXPECT_EQ(kelvane_statfs("/", &volume), 0);
    EXPECT_EQ(volume.f_bsize, 5U);
    script("GET /?action=statvfs", 200, "{\"bsize\":6,\"frsize\":1,\"blocks\":1,\"bfree\":1,\"bavail\":1,\"namemax\":9}");
    EXPECT_EQ(kelvane_statfs("/", nullptr), 0);
    EXPECT_EQ(kelvane_statfs("/", &volume), 0);
    EXPECT_EQ(volume.f_bsize + volume.f_namemax, 15U);
}

TEST_F(OperationsTest, ExtendedAttributes) {
    char value[8] = "-------";
    const std::string composed = "\xc3\xa9", decomposed = "e\xcc\x81";
    const auto get = [&](const char* path, const std::string& name, std::uint32_t position) {
        return kelvane_getxattr(path, name.c_str(), value, 3, position);
    };
    EXPECT_TRUE(get("/a.txt", composed, 0) == -93 && get("/none", composed, 0) == -93);
    EXPECT_EQ(kelvane_removexattr("/a.txt", "none"), 0);
    DirEntryAddXAttr("/none", "n", "abc", 3);
    DirEntryAddXAttr("/a.txt", composed.c_str(), "one", 3);
    DirEntryAddXAttr("/a.txt", decomposed.c_str(), "two", 3);
    DirEntry* entry = DirGetEntry("/a.txt");
    EXPECT_EQ(HASH_COUNT(entry->xattrs), 1U);
    EXPECT_EQ(get("/a.txt", composed, 2), 3);
    EXPECT_STREQ(value, "--two--");
    EXPECT_EQ(kelvane_getxattr("/a.txt", composed.c_str(), value, 0, 0), 0);
    DirEntryAddXAttr("/a.txt", "empty", "", 0);
    EXPECT_EQ(kelvane_removexattr("/a.txt", composed.c_str()) + kelvane_removexattr("/a.txt", "empty"), 0);
    EXPECT_EQ(entry->xattrs, nullptr);
}

TEST_F(OperationsTest, FirstGetattrInformsOnce) {
    static char disk[] = "Documents";
    finderName = disk;
    finderInformed = 0;
    attributesOf("/none", -2);
    EXPECT_EQ(finderInformed, 1);
    finderName = nullptr; // a second start would not survive this
    attributesOf("/a.txt");
}
