// Hostile and broken replies: what must happen for each, in a process of its own.
#include "cache/path_lookup.h"
#include "cache/refresh.h"
#include "cache/remote_fetch.h"
#include "kelvane_vfs/operations.h"
#include "tests/cache_fixture.h"

namespace {

enum class End { lives, exits, aborts };

struct Fault {
    const char* name;
    Reply reply;
    End end;
    std::string names = ""; // of the listing, for those that live
};

Fault json(const char* name, const std::string& body, End end, const std::string& names = "") { return {name, httpReply(200, body), end, names}; }

std::string repeated(const std::string& text, int count) {
    std::string all;
    for (int i = 0; i < count; ++i) { all += text; }
    return all;
}

std::string named(const std::string& name) { return R"({"entries":[{"n":")" + name + R"(","t":8}]})"; }

struct FaultsTest : CacheTest {
    // Runs `call` in a child whose exit status is 42 when it comes back with the expected text.
    static void expectEnd(const Fault& fault, const std::function<std::string()>& call) {
        closeConnection();
        EXPECT_EXIT(
                {
                    const std::string result = call();
                    std::fprintf(stderr, "result: '%s'\n", result.substr(0, 200).c_str());
                    _exit(result == fault.names ? 42 : 43);
                },
                ([&](int status) {
                    return fault.end == End::lives   ? WIFEXITED(status) && WEXITSTATUS(status) == 42
                           : fault.end == End::exits ? WIFEXITED(status) && WEXITSTATUS(status) == 1
                                                     : WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT;
                }),
                "")
                << fault.name;
    }
};

std::string rootNames() {
    std::string names;
    const auto add = [](void* buffer, const char* name, const struct stat*, off_t) {
        *static_cast<std::string*>(buffer) += std::string(name) + ",";
        return 0;
    };
    DirRead("/", &names, add);
    return names.size() < 100000 ? names : std::to_string(std::count(names.begin(), names.end(), ','));
}

} // namespace

TEST_F(FaultsTest, Listings) {
    const std::string two = R"({"entries":[{"n":"a","t":8},{"n":"b","t":4}]})";
    std::string huge = R"({"entries":[{"n":"first","t":8})";
    for (int i = 1; i < 100000; ++i) { huge += R"(,{"n":"name )" + std::to_string(i) + R"(","t":8,"s":1})"; }
    Reply pieces = httpReply(200, two);
    pieces.piece = 1;
    Reply late = httpReply(200, two);
    late.delayMilliseconds = 300;
    const std::string head = "HTTP/1.1 200 OK\r\n";
    const Fault faults[] = {
            {"in pieces", pieces, End::lives, "a,b,"},
            {"late", late, End::lives, "a,b,"},
            {"not found", httpReply(404, two), End::lives, "a,b,"},
            {"server error", httpReply(500, two), End::lives, "a,b,"},
            {"redirect", httpReply(302, two, "Location: http://127.0.0.1:1/\r\n"), End::lives, "a,b,"},
            {"no content", httpReply(204, ""), End::lives},
            {"until the end of the connection", {head + "\r\n" + two, true}, End::lives, "a,b,"},
            {"length too short", {head + "Content-Length: 20\r\n\r\n" + two, true}, End::lives},
            {"length too long", {head + "Content-Length: 900\r\n\r\n" + two, true}, End::exits},
            {"reset in the middle", {head + "Content-Length: 900\r\n\r\n" + two, false, true}, End::exits},
            {"closed before the reply", {"", true}, End::exits},
            {"reset before the reply", {"", false, true}, End::exits},
            {"no HTTP at all", {"SSH-2.0 hello\r\n", true}, End::exits},
            {"broken chunks", {head + "Transfer-Encoding: chunked\r\n\r\nzz\r\nabc", true}, End::exits},
            json("empty", "", End::lives),
            json("deep", repeated("[", 100000), End::lives),
            json("deep entries", R"({"entries":[)" + repeated("[", 998) + repeated("]", 998) + "]}", End::lives),
            json("huge", huge + "]}", End::lives, "100000"),
            json("no entries", "{}", End::aborts),
            json("not an object", "[]", End::aborts),
            json("a number", "5", End::aborts),
            json("entries is a text", R"({"entries":"x"})", End::lives),
            json("entries is an object", R"({"entries":{"k":{"n":"x","t":8}}})", End::lives, "x,"),
            json("elements of every type", R"({"entries":[1,"x",null,true,[],{},{"t":4}]})", End::lives),
            json("no kind", R"({"entries":[{"n":"x"}]})", End::aborts),
            json("kind is a text", R"({"entries":[{"n":"x","t":"4"}]})", End::lives, "x,"),
            json("values of every type", R"({"entries":[{"n":"x","t":[],"s":"1","m":{},"b":1e400,"mt":-1e999,"at":99999999999999999999}]})", End::lives, "x,"),
            json("keys twice and in other letters", R"({"ENTRIES":[{"N":"x","n":"y","T":4,"t":8}],"entries":[]})", End::lives, "x,"),
            json("name is a number", R"({"entries":[{"n":7,"t":8}]})", End::lives),
            json("empty name", named(""), End::lives),
            json("dot", named("."), End::lives, ".,"),
            json("two dots", named(".."), End::lives, "..,"),
            json("slash inside", named("a/b"), End::lives),
            json("NUL inside", named("a\\u0000b"), End::lives, "a,"),
            json("half a surrogate pair", named("\\ud800"), End::lives),
            json("invalid UTF-8", named("\xff\xc3"), End::lives, "\xff\xc3,"),
            json("the same name twice", R"({"entries":[{"n":"x","t":8},{"n":"y","t":8},{"n":"x","t":4}]})", End::lives, "y,x,"),
            json("a long name alone", named(std::string(5000, 'n')), End::lives),
            json("a long name beside others", R"({"entries":[{"n":"x","t":8},{"n":")" + std::string(5000, 'n') + R"(","t":8}]})", End::aborts),
    };
    for (const Fault& fault : faults) {
        setReply(service, "GET /", fault.reply);
        expectEnd(fault, rootNames);
    }
}

TEST_F(FaultsTest, OtherReplies) {
    list("", {});
    DirGetEntry("/x");
    const Fault faults[] = {
            json("empty", "", End::lives, "0"),
            json("one member missing", R"({"s":1,"b":1,"m":33188,"nl":1,"at":1,"mt":1})", End::aborts),
            json("an array", "[1,2,3]", End::aborts),
            json("texts", R"({"s":"1","b":"1","m":"x","nl":[],"at":{},"mt":null,"ct":true})", End::lives, "0"),
            json("beyond 64 bits", R"({"s":1e300,"b":1,"m":33188,"nl":1,"at":1,"mt":1,"ct":1})", End::lives, "2147483647"),
            {"refused", httpReply(403, attributesJson(3, 0100644)), End::lives, "0"},
    };
    for (const Fault& fault : faults) {
        setReply(service, "GET /%2Fx?action=props", fault.reply);
        expectEnd(fault, [] {
            struct stat st = {};
            DirFetchRemoteAttr("/x", &st);
            return std::to_string(st.st_size);
        });
    }
    const Fault volumes[] = {
            json("empty", "", End::lives, "none"),
            json("nothing in it", "{}", End::aborts),
            json("texts", R"({"bsize":"","frsize":"","blocks":"","bfree":"","bavail":"","namemax":""})", End::lives, "0"),
            {"refused", httpReply(500, "{}"), End::lives, "none"},
    };
    for (const Fault& fault : volumes) {
        setReply(service, "GET /?action=statvfs", fault.reply);
        expectEnd(fault, [] {
            const struct statvfs* volume = DirGetVFS();
            return volume != nullptr ? std::to_string(volume->f_namemax) : "none";
        });
    }
}

// Replies to writes, to make-directory and to reads, each through its callback.
TEST_F(FaultsTest, RepliesToCallbacks) {
    list("", {});
    DirGetEntry("/x");
    struct fuse_file_info file = {};
    const std::function<int()> write = [&] { return kelvane_write("/x", "abc", 3, 0, &file); };
    const std::function<int()> mkdir = [] { return kelvane_mkdir("/x", 0); };
    const std::function<int()> read = [&] {
        char area[4];
        return kelvane_read("/x", area, sizeof area, 8, &file);
    };
    const std::string put = "PUT /%2Fx?action=write&flags=0&offset=0";
    const std::string make = "GET /%2Fx?action=mkdir";
    const struct {
        const std::function<int()>& call;
        std::string request;
        Fault fault;
    } rows[] = {
            {write, put, json("no JSON", "stored", End::lives, "3")},
            {write, put, json("deep", repeated("[", 2000), End::lives, "3")},
            {write, put, json("member missing", "{}", End::aborts)},
            {write, put, json("texts", R"({"s":"","b":"","m":"","nl":"","at":"","mt":"","ct":""})", End::lives, "3")},
            {write, put, {"redirect", httpReply(307, ""), End::lives, "-1"}},
            {write, put, {"cut short", {"HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\n{", true}, End::exits}},
            {mkdir, make, json("code is a text", R"({"hc":"200"})", End::lives, "-2")},
            {mkdir, make, json("code beyond 64 bits", R"({"hc":1e99})", End::lives, "-2")},
            {mkdir, make, json("an array", "[200]", End::aborts)},
            {mkdir, make, json("empty", "", End::lives, "0")},
            {read, "GET /%2Fx", {"longer than asked", httpReply(206, std::string(100000, 'x')), End::lives, "4"}},
            {read, "GET /%2Fx", {"a whole file that is too short", httpReply(200, "1234567"), End::lives, "0"}},
            {read, "GET /%2Fx", {"reset in the middle", {"HTTP/1.1 206 OK\r\nContent-Length: 4\r\n\r\nx", false, true}, End::exits}},
    };
    for (const auto& row : rows) {
        setReply(service, row.request, row.fault.reply);
        expectEnd(row.fault, [&] { return std::to_string(row.call()); });
    }
}
