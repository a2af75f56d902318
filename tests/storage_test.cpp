#include "storage/target.h"
#include "tests/processes.h"
#include "tests/scripted_service.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <set>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

const std::string composed = "\xc3\xa9";
const std::string decomposed = "e\xcc\x81";

struct StorageTest : testing::Test {
    std::string scratch = makeScratch();
    std::string tree = scratch + "/tree";
    pid_t server = 0;
    std::uint16_t port = 0;

    void SetUp() override {
        startWatchdog(100);
        for (const char* directory : {"/tree/d", "/tree/full", "/outside"}) { std::filesystem::create_directories(scratch + directory); }
        for (const char* file : {"/tree/a.txt", "/tree/d/in", "/tree/full/x", "/outside/secret"}) { std::ofstream(scratch + file) << "content of " << file; }
        std::filesystem::create_symlink("../outside/secret", tree + "/out");
        std::filesystem::create_symlink("/etc", tree + "/absolute");
        std::filesystem::create_symlink("loop", tree + "/loop");
        std::filesystem::create_symlink("d/in", tree + "/link");
        mkfifo((tree + "/pipe").c_str(), 0600);
    }

    void TearDown() override {
        if (server != 0) {
            kill(server, SIGTERM);
            EXPECT_EQ(endOf(server), 0);
            EXPECT_EQ(fileText(scratch + "/server.err").find("Sanitizer"), std::string::npos);
        }
        stopWatchdog();
        umount2((tree + "/full").c_str(), MNT_DETACH);
        removeScratch(scratch);
    }

    void serve(const std::vector<std::string>& options = {}) {
        std::vector<std::string> command = {KELVANE_STORAGE, "--no-secret"};
        command.insert(command.end(), options.begin(), options.end());
        command.push_back(tree);
        server = startProcess(command, scratch + "/server");
        ASSERT_TRUE(eventually([&] { return fileText(scratch + "/server.out").ends_with("\n"); }));
        port = portOf(fileText(scratch + "/server.out"));
    }

    static std::uint16_t portOf(const std::string& url) { return static_cast<std::uint16_t>(std::stoul(url.substr(url.rfind(':') + 1))); }

    // Sends a request and gives back its status and body, "204 " or "200 text".
    std::string ask(const std::string& request, const std::string& headers = "", const std::string& body = "") const {
        const std::string reply = talk(port, request + " HTTP/1.1\r\nHost: 0.0.0.0\r\nConnection: close\r\n" + headers +
                                                     (body.empty() ? "" : "Content-Length: " + std::to_string(body.size()) + "\r\n") + "\r\n" + body);
        const std::size_t end = reply.find("\r\n\r\n");
        return reply.size() < 12 || end == std::string::npos ? "broken: " + reply : reply.substr(9, 4) + reply.substr(end + 4);
    }

    std::size_t openDescriptors() const {
        const auto all = std::filesystem::directory_iterator("/proc/" + std::to_string(server) + "/fd");
        return std::distance(begin(all), end(all));
    }
};

// Whether a reply is what the protocol page shows, where ":N" stands for some number.
bool follows(const std::string& reply, const std::string& shown) {
    std::size_t at = 0;
    for (std::size_t i = 0; i < shown.size(); ++i) {
        const bool isNumber = shown[i] == 'N' && i > 0 && shown[i - 1] == ':';
        const std::size_t length = isNumber ? std::min(reply.find_first_not_of("0123456789", at), reply.size()) - at : shown[i] == reply[at] ? 1 : 0;
        if (length == 0) {
            return false;
        }
        at += length;
    }
    return at == reply.size();
}

} // namespace

TEST(Target, Paths) {
    const struct {
        const char *text, *prefix;
        int status;
        const char* path;
    } rows[] = {
            {"/", "/", 0, ""},
            {"/%2Fa%20b%2f%c3%A9", "/", 0, "a b/\xc3\xa9"},
            {"/a//b/", "/", 0, "a/b"},
            {"http://host:1/x", "/", 0, "x"},
            {"/base%2Fx", "/base", 0, "x"},
            {"/basement", "/base", 404, ""},
            {"*", "/", 400, ""},
            {"/%2", "/", 400, ""},
            {"/%zz", "/", 400, ""},
            {"/a/%2e%2E/b", "/", 400, ""},
            {"/a?", "/", 0, "a"},
            {"/a?x=1", "/", 400, ""},
            {"/a?action=truncate&offset=-1", "/", 400, ""},
            {"/a?action=truncate&offset=1x", "/", 400, ""},
            {"/a?action=rename&to=%2F..", "/", 400, ""},
            {"/a?action=create&mode=99999999999", "/", 400, ""},
            {"/...", "/", 0, "..."},
    };
    for (const auto& row : rows) {
        Target target;
        EXPECT_EQ(parseTarget(row.text, row.prefix, target), row.status) << row.text;
        EXPECT_TRUE(row.status != 0 || target.path == row.path) << target.path;
    }
    Target target;
    EXPECT_EQ(parseTarget("/a?action=rename&to=%2Fb%26%3D%2Fc&replace=1", "/", target), 0);
    EXPECT_TRUE(target.action == Action::rename && target.to == "b&=/c" && target.replace);
}

TEST(Target, Ranges) {
    const struct {
        const char* header;
        std::uint64_t size;
        RangeKind kind;
        std::uint64_t first, length;
    } rows[] = {
            {nullptr, 10, RangeKind::whole, 0, 10},
            {"bytes=2-99", 10, RangeKind::part, 2, 8},
            {"bytes=-3", 10, RangeKind::part, 7, 3},
            {"bytes=-30", 10, RangeKind::part, 0, 10},
            {"bytes=0-18446744073709551615", 10, RangeKind::part, 0, 10},
            {"bytes=10-11", 10, RangeKind::unsatisfiable, 0, 10},
            {"bytes=-0", 10, RangeKind::unsatisfiable, 0, 10},
            {"bytes=0-0", 0, RangeKind::unsatisfiable, 0, 0},
            {"bytes=5-2", 10, RangeKind::whole, 0, 10},
            {"bytes=1-2,4-5", 10, RangeKind::whole, 0, 10},
            {"bytes=0-18446744073709551616", 10, RangeKind::whole, 0, 10},
            {"lines=1-2", 10, RangeKind::whole, 0, 10},
    };
    for (const auto& row : rows) {
        Range range = {};
        EXPECT_EQ(parseRange(row.header, row.size, range), row.kind) << row.header;
        EXPECT_TRUE(range.first == row.first && range.length == row.length) << row.header;
    }
}

TEST_F(StorageTest, AnswersEveryRequest) {
    serve();
    std::ofstream(tree + "/" + composed) << "accent";
    const std::string chunked = "Transfer-Encoding: chunked\r\n";
    std::string longest;
    for (int i = 0; i < 2047; ++i) { longest += "%61"; }
    const struct {
        std::string request, headers, body, reply;
    } rows[] = {
            {"GET /a.txt", "", "", "200 content of /tree/a.txt"},
            {"GET /link", "Range: bytes=8-9\r\n", "", "206 of"},
            {"GET /a.txt", "Range: bytes=900-901\r\n", "", "416 "},
            {"HEAD /a.txt", "", "", "200 "},
            {"GET /" + decomposed, "", "", "200 accent"},
            {"GET /full", "", "", "200 {\"entries\":[{\"t\":8,\"s\":23,"},
            {"GET /out", "", "", "404 "},
            {"GET /absolute/passwd", "", "", "404 "},
            {"GET /loop", "", "", "404 "},
            {"GET /none?action=props", "", "", "404 "},
            {"GET /a.txt/x?action=props", "", "", "404 "},
            {"GET /" + std::string(300, 'n'), "", "", "404 "},
            {"GET /pipe", "", "", "403 "},
            {"GET /%00", "", "", "400 "},
            {"GET /a.txt?action=what", "", "", "400 "},
            {"POST /a.txt", "", "x", "405 "},
            {"DELETE /a.txt", "", "", "405 "},
            {"HEAD /a.txt?action=unlink", "", "", "405 "},
            {"GET /a.txt?action=write&flags=1&offset=0", "", "", "405 "},
            {"PUT /a.txt", "", "x", "405 "},
            {"GET /?action=unlink", "", "", "403 "},
            {"GET /?action=rename&to=x&replace=1", "", "", "403 "},
            {"GET /new?action=create&mode=33188", "", "", "204 "},
            {"PUT /new?action=write&flags=4353&offset=3", "", "abc", "200 {\"s\":6,"},
            {"PUT /new?action=write&flags=8193&offset=1", "", "Z", "200 {\"s\":6,"},
            {"PUT /new?action=write&flags=1&offset=6", chunked + "\r\n2\r\nde\r\n0\r\n", "", "200 {\"s\":8,"},
            {"GET /new", "", "", std::string("200 \0Z\0abcde", 12)},
            {"PUT /none?action=write&flags=257&offset=0", "", "x", "404 "},
            {"PUT /pipe?action=write&flags=1&offset=0", "", "x", "403 "},
            {"PUT /new?action=write&flags=1&offset=0", "Content-Length: 1048577\r\n", "", "413 "},
            {"PUT /new?action=write&flags=1&offset=0", "", std::string(1 << 20, 'x'), "200 {\"s\":1048576,"},
            {"GET /new?action=truncate&offset=2", "", "", "204 "},
            {"GET /new", "", "", "200 xx"},
            {"GET /d?action=truncate&offset=2", "", "", "403 "},
            {"GET /m?action=mkdir", "", "", "200 {\"hc\":200}"},
            {"GET /m?action=mkdir", "", "", "200 {\"hc\":409}"},
            {"GET /none/m?action=mkdir", "", "", "404 "},
            {"GET /full?action=rmdir", "", "", "409 "},
            {"GET /a.txt?action=rmdir", "", "", "404 "},
            {"GET /m?action=unlink", "", "", "403 "},
            {"GET /new?action=rename&to=a.txt", "", "", "200 {\"hc\":409}"},
            {"GET /new?action=rename&to=m&replace=1", "", "", "200 {\"hc\":409}"},
            {"GET /d?action=rename&to=full&replace=1", "", "", "200 {\"hc\":409}"},
            {"GET /d?action=rename&to=a.txt&replace=1", "", "", "200 {\"hc\":409}"},
            {"GET /%FF?action=create&mode=33188", "", "", "400 "},
            {"GET /d?action=rename&to=d%2Fbelow&replace=1", "", "", "400 "},
            {"GET /new?action=rename&to=out&replace=1", "", "", "200 {\"hc\":409}"},
            {"GET /out?action=unlink", "", "", "404 "},
            {"GET /new?action=rename&to=%2Fa.txt&replace=1", "", "", "200 {\"hc\":200}"},
            {"GET /a.txt", "", "", "200 xx"},
            {"GET /new?action=unlink", "", "", "404 "},
            {"GET /a.txt?action=rename&to=" + decomposed + "&replace=1", "", "", "200 {\"hc\":200}"},
            {"GET /" + decomposed + "?action=create&mode=33188", "", "", "204 "},
            {"GET /" + decomposed + "?action=mkdir", "", "", "200 {\"hc\":409}"},
            {"GET /" + decomposed + "?action=unlink", "", "", "204 "},
            {"GET /m?action=rmdir", "", "", "204 "},
            {"GET /" + longest + "?action=rename&to=" + longest + "&replace=1", "", "", "404 "},
    };
    ask("GET /");
    const std::size_t before = openDescriptors();
    for (const auto& row : rows) {
        const std::string reply = ask(row.request, row.headers, row.body);
        EXPECT_TRUE(row.reply.ends_with(",") ? reply.starts_with(row.reply) : reply == row.reply) << row.request.substr(0, 80) << "\n" << reply;
    }
    EXPECT_TRUE(eventually([&] { return openDescriptors() <= before; })) << openDescriptors() << " " << before;
    EXPECT_EQ(fileText(scratch + "/outside/secret"), "content of /outside/secret");
    EXPECT_FALSE(std::filesystem::exists(tree + "/" + composed) || std::filesystem::exists(tree + "/" + decomposed));
}

// The documentation's conversation, held with a real server: "> " is sent, "< " has to come back, N is any number.
TEST_F(StorageTest, ConversesAsTheProtocolPageSays) {
    std::filesystem::create_directory(tree + "/notes");
    std::ofstream(tree + "/notes/hello.txt") << "hello, world";
    ASSERT_EQ(chmod((tree + "/notes/hello.txt").c_str(), 0644), 0);
    serve();
    std::ifstream page(KELVANE_PROTOCOL_PAGE);
    std::set<std::string> actions;
    std::vector<std::string> sent;
    std::string expected;
    bool inside = false;
    for (std::string line; std::getline(page, line);) {
        if (line == "```exchange") {
            inside = true;
            sent.clear();
            expected.clear();
        } else if (inside && line.starts_with('>')) {
            sent.push_back(line.substr(std::min<std::size_t>(line.size(), 2)));
        } else if (inside && line.starts_with("< ")) {
            expected += line.substr(2) + (expected.empty() ? " " : "");
        } else if (inside) {
            ASSERT_TRUE(line == "```" && !sent.empty() && !expected.empty()) << line;
            inside = false;
            const auto end = std::find(sent.begin(), sent.end(), "");
            std::string headers;
            for (auto header = sent.begin() + 1; header < end; ++header) { headers += *header + "\r\n"; }
            const std::string reply = ask(sent[0], headers, end == sent.end() ? "" : sent.back());
            EXPECT_TRUE(follows(reply, expected)) << sent[0] << "\n" << reply;
            const std::size_t action = sent[0].find("action=");
            actions.insert(action == std::string::npos ? "" : sent[0].substr(action, sent[0].find('&', action) - action));
        }
    }
    EXPECT_EQ(actions.size(), 10U) << "an action is without an example";
}

TEST_F(StorageTest, ListsWhatCanBeNamed) {
    std::ofstream(tree + "/bad\xff") << "x";
    std::ofstream(tree + "/\"q\\\n") << "x";
    serve();
    const std::string listing = ask("GET /");
    EXPECT_NE(listing.find("\"n\":\"\\\"q\\\\\\u000a\"}"), std::string::npos) << listing;
    EXPECT_NE(listing.find("\"n\":\"link\""), std::string::npos);
    for (const char* hidden : {"bad", "\"out\"", "absolute", "loop", "\"..\""}) { EXPECT_EQ(listing.find(hidden), std::string::npos) << hidden; }
    EXPECT_NE(fileText(scratch + "/server.err").find("kelvane_storage: \"/\": left out 1 name(s) that are not UTF-8\n"), std::string::npos);
    struct stat st;
    ASSERT_EQ(stat((tree + "/d").c_str(), &st), 0);
    EXPECT_EQ(ask("GET /d?action=props"), "200 {\"s\":" + std::to_string(st.st_size) + ",\"b\":" + std::to_string(st.st_blocks) +
                                                  ",\"m\":" + std::to_string(st.st_mode) + ",\"nl\":" + std::to_string(st.st_nlink) +
                                                  ",\"at\":" + std::to_string(st.st_atime) + ",\"mt\":" + std::to_string(st.st_mtime) +
                                                  ",\"ct\":" + std::to_string(st.st_ctime) + "}");
    const std::string volume = ask("GET /?action=statvfs");
    for (const char* key : {"bsize", "frsize", "blocks", "bfree", "bavail", "namemax"}) {
        EXPECT_NE(volume.find("\"" + std::string(key) + "\":"), std::string::npos) << volume;
    }
}

TEST_F(StorageTest, ReadOnlyRefusesEveryChange) {
    serve({"--read-only", "--threads", "1", "--prefix", "/base"});
    EXPECT_EQ(ask("GET /base%2Fa.txt"), "200 content of /tree/a.txt");
    EXPECT_EQ(ask("PUT /base%2Fa.txt?action=write&flags=1&offset=0", "", "x"), "403 ");
    for (const char* query : {"create&mode=1", "truncate&offset=0", "mkdir", "unlink", "rmdir", "rename&to=b&replace=1"}) {
        EXPECT_EQ(ask("GET /base/a.txt?action=" + std::string(query)), "403 ") << query;
    }
    EXPECT_EQ(fileText(tree + "/a.txt"), "content of /tree/a.txt");
}

TEST_F(StorageTest, SurvivesRudeClients) {
    serve({"--listen", "localhost"});
    ask("GET /");
    const std::size_t before = openDescriptors();
    const std::string put = "PUT /a.txt?action=write&flags=1&offset=0 HTTP/1.1\r\nHost: 0.0.0.0\r\nContent-Length: 100\r\n";
    const int waiting = connectTo(port);
    const std::string asking = put + "Expect: 100-continue\r\n\r\n";
    EXPECT_EQ(send(waiting, asking.data(), asking.size(), 0), static_cast<ssize_t>(asking.size()));
    char answer[13] = "";
    EXPECT_EQ(recv(waiting, answer, 12, MSG_WAITALL), 12);
    EXPECT_STREQ(answer, "HTTP/1.1 100");
    close(waiting);
    // A client that vanishes in the middle changes nothing and leaves nothing open.
    for (int client = 0; client < 20; ++client) {
        const int connection = connectTo(port);
        EXPECT_EQ(send(connection, (put + "\r\n").data(), put.size() + 2, 0), static_cast<ssize_t>(put.size() + 2));
        sleepMilliseconds(2); // its last bytes and its end come alone
        EXPECT_EQ(send(connection, "half", 4, 0), 4);
        close(connection);
    }
    EXPECT_TRUE(eventually([&] { return fileText(tree + "/a.txt") == "content of /tree/a.txt" && openDescriptors() <= before; })) << openDescriptors();
    for (const std::string& oversized :
            {"GET /" + std::string(1 << 20, 'x') + " HTTP/1.1\r\n\r\n", "GET / HTTP/1.1\r\nX: " + std::string(1 << 20, 'x') + "\r\n\r\n"}) {
        const std::string reply = talk(port, oversized, 5000, true);
        EXPECT_TRUE((reply.empty() || reply.starts_with("HTTP/1.1 4")) && !reply.ends_with(silence)) << reply;
    }
    // What never becomes a request is waited for until the connection's time is over.
    for (const std::string& half : {std::string(1000, '\0'), std::string("half a requ")}) { talk(port, half, 100, true); }
    const std::string two = talk(port, "GET /d/in HTTP/1.1\r\nHost: 0.0.0.0\r\n\r\nGET /d/in HTTP/1.1\r\nHost: 0.0.0.0\r\nConnection: close\r\n\r\n");
    EXPECT_NE(two.find("content of", two.find("content of") + 1), std::string::npos) << two;
    // An upload ends in its file, also when the folder gets another name meanwhile.
    const int upload = connectTo(port);
    const std::string start = "PUT /d/in?action=write&flags=1&offset=0 HTTP/1.1\r\nHost: 0.0.0.0\r\nContent-Length: 4\r\n\r\nha";
    EXPECT_EQ(send(upload, start.data(), start.size(), 0), static_cast<ssize_t>(start.size()));
    sleepMilliseconds(50);
    EXPECT_EQ(ask("GET /d?action=rename&to=e&replace=1"), "200 {\"hc\":200}");
    EXPECT_EQ(send(upload, "lf", 2, 0), 2);
    EXPECT_TRUE(eventually([&] { return fileText(tree + "/e/in") == "halfent of /tree/d/in"; }));
    close(upload);
    // Served from the open directory, also when its name goes.
    std::filesystem::rename(tree, scratch + "/moved");
    EXPECT_EQ(ask("GET /e/in"), "200 halfent of /tree/d/in");
}

TEST_F(StorageTest, GoesOnAfterShortages) {
    ASSERT_EQ(runShell("mount -t tmpfs -o size=64k none " + tree + "/full"), 0);
    server = startProcess({"/usr/bin/prlimit", "--nofile=60:60", "--fsize=150000:150000", KELVANE_STORAGE, "--no-secret", "--threads", "2", tree}, scratch + "/server");
    ASSERT_TRUE(eventually([&] { return fileText(scratch + "/server.out").ends_with("\n"); }));
    port = portOf(fileText(scratch + "/server.out"));
    EXPECT_EQ(ask("GET /full/f?action=create&mode=33188"), "204 ");
    EXPECT_EQ(ask("PUT /full/f?action=write&flags=1&offset=0", "", std::string(100000, 'x')), "507 ");
    EXPECT_EQ(ask("PUT /full/f?action=write&flags=1&offset=0", "", "fits").substr(0, 4), "200 ");
    EXPECT_EQ(ask("GET /a.txt?action=truncate&offset=150001"), "507 ");
    std::string second;
    EXPECT_EQ(runShell(std::string(KELVANE_STORAGE) + " --port " + std::to_string(port) + " " + tree, &second, 20), 1);
    EXPECT_NE(second.find("Address already in use"), std::string::npos) << second;
    // More connections than it has descriptors, half of them with half a request.
    std::vector<std::thread> clients;
    for (int i = 0; i < 200; ++i) {
        clients.emplace_back([&, i] { talk(port, i % 2 == 0 ? "GET /a.t" : "", 300); });
    }
    for (std::thread& client : clients) { client.join(); }
    EXPECT_EQ(ask("GET /a.txt"), "200 content of /tree/a.txt");
}

TEST_F(StorageTest, ServesBesideThousandsOfConnections) {
    const rlimit many = {16384, 16384};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &many), 0);
    serve();
    std::vector<int> connections;
    for (int i = 0; i < 3000; ++i) {
        connections.push_back(connectTo(port));
        ASSERT_GE(connections.back(), 0);
        if (i % 2 == 0) {
            EXPECT_EQ(send(connections.back(), "GET /a.t", 8, 0), 8);
        }
    }
    EXPECT_EQ(ask("GET /a.txt"), "200 content of /tree/a.txt");
    // No descriptor is left to open the file with, then there are some again.
    const std::string limit = "prlimit --pid " + std::to_string(server) + " --nofile=";
    EXPECT_EQ(runShell(limit + std::to_string(openDescriptors() + 1) + ":16384"), 0);
    const std::string starved = ask("GET /a.txt");
    EXPECT_TRUE(starved == "503 " || starved == "broken: ") << starved;
    EXPECT_EQ(runShell(limit + "8192:16384"), 0);
    EXPECT_TRUE(eventually([&] { return ask("GET /a.txt") == "200 content of /tree/a.txt"; }));
    // A slow client gets its answer as well.
    for (const char c : std::string("xt HTTP/1.1\r\nHost: 0.0.0.0\r\n\r\n")) {
        EXPECT_EQ(send(connections[0], &c, 1, 0), 1);
        sleepMilliseconds(5);
    }
    char reply[13] = "";
    EXPECT_EQ(recv(connections[0], reply, 12, MSG_WAITALL), 12);
    EXPECT_STREQ(reply, "HTTP/1.1 200");
    for (const int connection : connections) { close(connection); }
}

TEST_F(StorageTest, NeverFollowsALinkThatIsBeingChanged) {
    serve();
    std::atomic<bool> stop{false};
    std::thread changer([&] {
        for (int i = 0; !stop; ++i) {
            std::filesystem::create_symlink(i % 2 == 0 ? "../outside" : "d", tree + "/next");
            std::filesystem::rename(tree + "/next", tree + "/switch");
        }
    });
    std::map<std::string, int> replies;
    for (int i = 0; i < 600 || replies.size() < 2; ++i) {
        ++replies[i % 3 == 0   ? ask("GET /switch/in")
                  : i % 3 == 1 ? ask("GET /switch/secret")
                               : ask("PUT /switch/secret?action=write&flags=1&offset=0", "", "written")];
    }
    stop = true;
    changer.join();
    for (const auto& [reply, times] : replies) { EXPECT_TRUE(reply == "404 " || reply == "200 content of /tree/d/in") << reply << times; }
    EXPECT_EQ(fileText(scratch + "/outside/secret"), "content of /outside/secret");
}

// A reader that takes its time holds nobody up and gets everything, unless the file gets shorter meanwhile.
TEST_F(StorageTest, SlowReaders) {
    const std::size_t size = 64 << 20;
    std::filesystem::resize_file(tree + "/a.txt", size);
    serve({"--threads", "1"});
    for (const bool cut : {false, true}) {
        const int connection = connectTo(port);
        send(connection, "GET /a.txt HTTP/1.1\r\nHost: 0.0.0.0\r\n\r\n", 38, 0);
        std::vector<char> area(65536);
        std::size_t total = 0;
        for (int byte = 0; byte < 20; ++byte) {
            total += recv(connection, area.data(), 1, 0);
            EXPECT_EQ(ask("GET /d/in"), "200 content of /tree/d/in");
        }
        std::filesystem::resize_file(tree + "/a.txt", cut ? 0 : size);
        for (ssize_t count = 0; total < size && (count = recv(connection, area.data(), area.size(), 0)) > 0;) { total += count; }
        close(connection);
        EXPECT_EQ(total < size, cut);
    }
}

TEST_F(StorageTest, CommandLine) {
    const struct {
        std::string arguments;
        int status;
        std::string output;
    } rows[] = {
            {"", 2, "kelvane_storage: DIRECTORY is missing"},
            {"--port 70000 /tmp", 2, "kelvane_storage: --port 70000: "},
            {"--threads 0 /tmp", 2, "kelvane_storage: --threads 0: "},
            {"--tls-cert x /tmp", 2, "kelvane_storage: --tls-cert needs --tls-key"},
            {"--prefix x /tmp", 2, "kelvane_storage: --prefix x: "},
            {"--help", 0, "usage: "},
            {"--tls-cert /dev/null --tls-key /dev/null /tmp", 1, "kelvane_storage: /dev/null: "},
            {"--read-only --port 1 --listen 127.0.0.2 --listen 192.0.2.1 --behind-proxy /tmp", 1, "kelvane_storage: cannot serve on 192.0.2.1 port 1: "},
            {"/none/such", 1, "kelvane_storage: /none/such: No such file or directory\n"},
            {"--tls-cert /none --tls-key /none /tmp", 1, "kelvane_storage: /none: No such"},
            {"--listen 'not an address' /tmp", 1, "kelvane_storage: no such address"},
            {"--listen 0.0.0.0 /tmp", 2, "kelvane_storage: other machines reach 0.0.0.0"},
    };
    for (const auto& row : rows) {
        std::string output;
        EXPECT_EQ(runShell(std::string(KELVANE_STORAGE) + " " + row.arguments, &output, 20), row.status);
        EXPECT_TRUE(output.starts_with(row.output)) << output;
    }
}
