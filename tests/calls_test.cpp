#include "InformFinder/finder_sidebar.h"
#include "InformFinder/name_forms.h"
#include "cache/path_lookup.h"
#include "cache/refresh.h"
#include "cache/remote_fetch.h"
#include "cache/root.h"
#include "cache/volume_statistics.h"
#include "cache/xattrs.h"
#include "kelvane_vfs/checked_text.h"
#include "kelvane_vfs/operations.h"
#include "kelvane_vfs/process.h"
#include "kelvane_vfs/protocol.h"
#include "kelvane_vfs/reply_tree.h"
#include "kelvane_vfs/shutdown.h"
#include "kelvane_vfs/transport.h"
#include "tests/scripted_calls.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sstream>
#include <thread>

#define ROW(start, call, text)                                                                                         \
    expectRow(                                                                                                         \
        start, [] { return static_cast<long>(call); }, text)

namespace {

const std::string composed = "\xc3\xa9", decomposed = "e\xcc\x81", ligature = "\xef\xac\x81"; // é, é, fi
const char* const tree =
    R"(200 DIR4096; 200 {"entries":[{"n":"a.txt","t":8,"s":5},{"n":"dir x","t":4,"s":0},{"n":"d","t":4},)"
    R"({"n":"NFC","t":8,"s":1}]}; 200 {"entries":[{"n":"old","t":8}]}; 200 {"entries":[]})";
const char* const root = "200 DIR4096";
struct fuse_file_info file = {.flags = -5};
std::string data(300000, '\0');
struct stat attributes, noAttributes;
struct statvfs volume;
ReplyBuffer noReply = {};

template <typename... Parts> long print(const Parts&... parts) {
    std::ostringstream text;
    const char* separator = "";
    ((text << separator << parts, separator = " "), ...);
    std::puts(text.str().c_str());
    return 0;
}

long list(const char* path) {
    std::string names;
    const auto add = [](void* buffer, const char* name, const struct stat* st, off_t) {
        *static_cast<std::string*>(buffer) += std::string(name) + " " + std::to_string(st->st_size) + ",";
        return 1;
    };
    const int result = kelvane_readdir(path, &names, add, 0, nullptr);
    const std::string trace = transcript();
    names.size() < 200 ? print(names) : print(names.size(), std::count(trace.begin(), trace.end(), '\n'));
    return result;
}

// Prints results by name, in their order.
long outcomes(std::initializer_list<std::pair<const char*, long>> results) {
    for (const auto& [name, result] : results) {
        print(name, result);
    }
    return 0;
}

// Prints the record of a path; the result of the call before is passed on.
long show(long result, const char* path) {
    const DirEntry* entry = DirGetEntry(path);
    const struct stat& st = entry != nullptr ? entry->st : noAttributes;
    entry == nullptr ? print("none")
                     : print(entry->name, entry->type, st.st_mode, st.st_size, st.st_blocks, st.st_nlink, st.st_atime,
                             st.st_mtime, st.st_ctime, st.st_uid, st.st_gid);
    return result;
}

long readFile(off_t offset) {
    char text[] = "????";
    const int count = kelvane_read("/a.txt", text, 4, offset, &file);
    std::puts(text);
    return count;
}

long writeFile(std::size_t size, off_t offset) {
    file.fh = O_RDWR | O_APPEND;
    return kelvane_write("/a.txt", data.data(), size, offset, &file);
}

long askForStatistics() {
    volume.f_bsize = 7;
    const int result = kelvane_statfs("/", &volume) + kelvane_statfs("/", nullptr);
    print(volume.f_bsize);
    kelvane_statfs("/", &volume);
    print(static_cast<long>(volume.f_bsize), volume.f_frsize, volume.f_blocks, volume.f_bfree, volume.f_bavail,
          volume.f_files + volume.f_ffree + volume.f_favail + volume.f_fsid, volume.f_flag, volume.f_namemax);
    DirUpdate("/x"); // ends the process if the reply's tree was not released
    return result;
}

long getFirstAttributes() {
    static char disk[] = "Disk (srv)";
    finderName = disk;
    finderInformed = 0;
    flockfile(stderr); // makes the lines of the registration's thread come last
    const int result = kelvane_getattr("/no", &noAttributes) + kelvane_getattr("/no", &noAttributes);
    funlockfile(stderr);
    while (!transcript().ends_with("srv/Disk\n")) {
        std::this_thread::yield();
    }
    return result;
}

long useExtendedAttributes() {
    char value[] = "-------";
    DirEntryAddXAttr("/a.txt", composed.c_str(), "one", 3);
    DirEntryAddXAttr("/a.txt", decomposed.c_str(), "two", 3);
    kelvane_getxattr("/a.txt", composed.c_str(), value, 3, 2);
    kelvane_removexattr("/a.txt", composed.c_str());
    kelvane_listxattr("/a.txt", nullptr, 0);
    std::puts(value);
    return kelvane_getxattr("/a.txt", decomposed.c_str(), value, 3, 0);
}

long transfer() {
    std::size_t received = 9;
    long status = 0;
    std::string headers = "\nA: 1\n\nB: 2\n";
    std::free(postURL("", "q", "", 0, nullptr, nullptr));
    char* body = getURL("", "", &received, headers.data(), &status);
    print(received, body[2]);
    std::free(body);
    body = getURL("/", nullptr, &received, nullptr, nullptr);
    print(received, body);
    std::free(body);
    return status;
}

long writeEightTimes() {
    for (int i = 0; i < 7; ++i) {
        writeFile(3, 0);
    }
    return writeFile(3, 0);
}

} // namespace

std::map<std::string, std::string> words = [] {
    std::map<std::string, std::string> all;
    std::generate(data.begin(), data.end(), [i = 0]() mutable { return static_cast<char>('a' + i++ * 7 / 3 % 26); });
    const std::string rest = R"(,"nl":1,"at":11,"mt":22,"ct":33})";
    all["DIR4096"] = R"({"s":4096,"b":8,"m":16877)" + rest;
    all["FILE5"] = R"({"s":5,"b":8,"m":33188)" + rest;
    all["SOCKET"] = R"({"s":9,"b":8,"m":49536)" + rest;
    all["ZERO"] = std::string(1, '\0');
    all["OTHERS"] = "8 1 11 22 33 65534 4321";
    all["NFC"] = composed;
    all["NFD"] = decomposed;
    all["TYPE"] = "Content-Type: application/octetstream|";
    all["\\r\\n"] = "\r\n";
    all["DEEP"] = std::string(100000, '[');
    all["LONG"] = std::string(5000, 'n');
    all["TWO"] = R"({"entries":[{"n":"a","t":8},{"n":"b","t":4}]})";
    all["TEXTS"] = R"({"s":"1","b":"1","m":"x","nl":[],"at":{},"mt":null,"ct":"x"})";
    for (int i = 0; i < 50000; ++i) {
        all["MANY"] += R"({"n":")" + std::to_string(i) + R"(","t":8},)";
        all["ACCENTS"] += i < 342 ? composed : ""; // 684 bytes composed, 1026 decomposed
    }
    return all;
}();

TEST(Calls, Changes) {
    ROW(tree, show(kelvane_mkdir("/dir x/new", 0700), "/dir x/new"),
        R"(E kelvane_mkdir: /dir x/new; > GET /%2Fdir%20x%2Fnew?action=mkdir| => 200 {"hc":200}
                > GET /%2Fdir%20x%2Fnew?action=props| => 200 DIR4096; O new 1 16877 4096 OTHERS; = 0)");
    ROW(tree, kelvane_mkdir("/m", 0),
        R"(E kelvane_mkdir: /m; > GET /%2Fm?action=mkdir| => 201 {"hc":200}; E   -> FAILED; = -2)");
    ROW(tree, show(kelvane_unlink("/a.txt"), "/a.txt"),
        R"(E kelvane_unlink: /a.txt; > GET /%2Fa.txt?action=unlink| => 204
                > GET /%2Fa.txt?action=props| => 404 no; O none; = 0)");
    ROW(tree, kelvane_unlink("/d/old"), R"(...; => 200 {"hc":409}; > GET /%2Fd%2Fold?action=props| => 200 FILE5; = 0)");
    ROW(tree, show(kelvane_rmdir("/d"), "/d/old"), R"(E kelvane_rmdir: /d; > GET /%2Fd?action=rmdir| => 200 {"hc":409}
                > GET /%2Fd?action=props| => 204; O none; = 0)");
    ROW(tree, show(show(kelvane_rename("/a.txt", "/dir x/b.txt"), "/a.txt"), "/dir x/b.txt"),
        R"(E kelvane_rename: /a.txt -> /dir x/b.txt
                > GET /%2Fa.txt?action=rename&to=%2Fdir%20x%2Fb.txt&replace=1| => 200 {"hc":200}
                > GET /%2Fa.txt?action=props| => 404; > GET /%2Fdir%20x%2Fb.txt?action=props| => 200 FILE5
                O none; O b.txt 2 33188 5 OTHERS; = 0)");
    ROW(tree, (kelvane_rename("/d/old", "/e\xcc\x81")),
        R"(...; > GET /%2Fd%2Fold?action=rename&to=%2F%C3%A9&replace=1| => 200 {"hc":409}
                E   -> cannot overwrite; = -2)");
    ROW(tree, show(kelvane_truncate("/a.txt", 5000000000), "/a.txt"),
        R"(E kelvane_truncate: /a.txt 5000000000; > GET /%2Fa.txt?action=truncate&offset=5000000000| => 204
                > GET /%2Fa.txt?action=props| => 200 SOCKET; O a.txt 1 49536 9 OTHERS; = 0)");
    ROW(tree, show(kelvane_create("/d/c", 0100644, &file) + static_cast<int>(file.fh), "/d/c"),
        R"(E kelvane_create: /d/c mode: 33188 flags: -5 uid: 65534; > GET /%2Fd%2Fc?action=create&mode=33188| => 500
                > GET /%2Fd%2Fc?action=props| => 200 FILE5; O c 2 33188 5 OTHERS; = -5)");
}

TEST(Calls, FilesAndAttributes) {
    ROW(tree, kelvane_open("/d/old", &file) + static_cast<int>(file.fh), "E kelvane_open: /d/old flags: -5; = -5");
    ROW(tree, kelvane_open("/d/no", &file), "E kelvane_open: /d/no flags: -5; E   -> FAILED; = -2");
    ROW(tree, readFile(2),
        "E kelvane_read: /a.txt (2, 4); > GET /%2Fa.txt|Range: bytes=2-5| => 206 cdefgh; O cdef; = 4");
    ROW(tree, readFile(2), "...; > GET /%2Fa.txt|Range: bytes=2-5| => 206 cd; O cd??; = 2");
    ROW(tree, readFile(2), "...; > GET /%2Fa.txt|Range: bytes=2-5| => 200 abcdefgh; O cdef; = 4");
    ROW(tree, readFile(2), "...; > GET /%2Fa.txt|Range: bytes=2-5| => 404 gone; O ne??; = 2");
    ROW(tree, readFile(2), "...; > GET /%2Fa.txt|Range: bytes=2-5| => 416 n; O ????; = 0");
    ROW(tree,
        outcomes({{"flush", kelvane_flush("/m", &file)},
                  {"chmod", kelvane_chmod("/a.txt", mode_t(0200600))},
                  {"setattr", kelvane_setattr_x("/m", nullptr)}}),
        R"(E kelvane_flush: /m; E kelvane_chmod: /a.txt -> 384; E kelvane_setattr_x: /m
                O flush 0; O chmod 0; O setattr 0; = 0)");
    ROW(tree, kelvane_getattr("/a.txt", &attributes) + attributes.st_size, "E kelvane_getattr: /a.txt; = 5");
    ROW(tree,
        (std::memset(&attributes, 'x', sizeof attributes), kelvane_getattr("/no", &attributes)) *
            (std::memcmp(&attributes, &noAttributes, sizeof attributes) != 0),
        "E kelvane_getattr: /no; O No attr for: /no; = 0");
    ROW(tree, outcomes({{"file", list("/a.txt")}, {"none", list("/no")}}),
        "E kelvane_readdir: /a.txt; O ; E kelvane_readdir: /no; O ; O file -2; O none -2; = 0");
    ROW(tree, askForStatistics(),
        R"(> GET /?action=statvfs| => 503 {}; > GET /?action=statvfs|
                => 200 {"bsize":-4,"frsize":2,"blocks":9000000000,"bfree":-1,"bavail":6,"namemax":255}
                O 7; O -4 2 2147483647 4294967295 6 0 2 255; > GET /%2Fx?action=props| => 200 FILE5; = 0)");
    ROW(tree, getFirstAttributes(),
        R"(E kelvane_getattr: /no; O No attr for: /no; E kelvane_getattr: /no; O No attr for: /no
                E informing finder to add disk to sidebar: Disk (srv)
                E path: /nonexistent/Library/kelvane/mount/srv/Disk; = -4)");
    ROW(tree, useExtendedAttributes(),
        R"(E kelvane_getxattr: /a.txt - NFC (size: 3, pos: 2); E kelvane_removexattr: /a.txt - NFC
                E kelvane_listxattr: /a.txt; O --two--; E kelvane_getxattr: /a.txt - NFD (size: 3, pos: 0); = -93)");
    ROW(tree, (signals_init(), std::raise(SIGPIPE)), "O settings up signal handlers; = 0");
}

TEST(Calls, WritesInParts) {
    const auto sent = [](std::size_t from, std::size_t size, const std::string& offset) {
        return "; > PUT /%2Fa.txt?action=write&flags=8194&offset=" + offset + "|TYPE" +
               bodyText(data.substr(from, size));
    };
    const auto part = [&](std::size_t from, std::size_t size, const std::string& offset, const std::string& reply) {
        return sent(from, size, offset) + " => " + reply;
    };
    const std::string line = "E kelvane_write: path: /a.txt size: ", all = "O a.txt 2 33188 5 OTHERS; = ";
    ROW(tree, show(writeFile(131072, 9), "/a.txt"),
        line + "131072 offset: 9" + part(0, 131072, "9", "299 FILE5; ") + all + "131072");
    ROW(tree, show(writeFile(300000, 5000000000), "/a.txt"),
        "..." + part(0, 131072, "5000000000", "200 SOCKET") + part(131072, 131072, "5000131072", "201 SOCKET") +
            part(262144, 37856, "5000262144", "200 FILE5; ") + all + "300000");
    ROW(tree, show(writeFile(131073, 0), "/a.txt"),
        "..." + part(0, 131072, "0", "200 FILE5") + part(131072, 1, "131072", "300; ") + all + "-1");
    // Each write but the first comes over a connection that is closed at that moment.
    const std::string write = line + "3 offset: 0", kept = part(0, 3, "0", "keep200 FILE5; ");
    const std::string repeated = write + sent(0, 3, "0") + kept;
    ROW(tree, writeEightTimes(),
        write + kept + repeated + repeated + repeated + repeated + repeated + repeated + write + sent(0, 3, "0") +
            part(0, 3, "0", "200 FILE5; = 3"));
    // The new entry has the local spelling, and so has the next request.
    ROW(tree, (kelvane_write("/e\xcc\x81", "x", 1, 0, &file), kelvane_unlink("/\xc3\xa9"), list("/")),
        R"(E kelvane_write: path: /NFD size: 1 offset: 0
                > PUT /%2F%C3%A9?action=write&flags=0&offset=0|TYPEx => 200 FILE5
                E kelvane_unlink: /NFC; > GET /%2Fe%CC%81?action=unlink| => 500; E   -> FAILED; E kelvane_readdir: /
                O CACHE-DirRead: adding: a.txt; O CACHE-DirRead: adding: dir x; O CACHE-DirRead: adding: d
                O CACHE-DirRead: adding: NFD; O a.txt 5,dir x 0,d 0,NFD 5,; = 0)");
}

// A look-up drops a tree that is more than a minute old, unless a calling function still uses the tree. Here the clock
// moves on by more than a minute each time it is read.
TEST(Calls, FreshCache) {
    // The walk uses the caller's spelling, the transport the service's.
    ROW(root, (show(show(0, "//e\xcc\x81/in/"), "/")),
        R"(E getURL: path: /, query: (null); O DirReadOriginalEncodingPathUnlocked: ; E getURL: url: http://HOST/
                > GET /| => 200 {"entries":[{"n":"NFC","t":4}]}; O getURL: 30 bytes retrieved
                E getURL: path: /NFD, query: (null); O DirReadOriginalEncodingPathUnlocked: NFD; O encoded_path=/NFC
                E getURL: url: http://HOST/%2F%C3%A9
                > GET /%2F%C3%A9| => 200 {"entries":[{"n":"in","t":8,"s":3}]}; O getURL: 36 bytes retrieved
                O in 2 0 3 0 0 0 0 0 65534 4321; O  1 16877 4096 OTHERS; = 0)");
    ROW(root, (clockStep = 61, show(0, "/dir/in")),
        R"(> GET /| => 200 {"entries":[{"n":"dir","t":4}]}
                > GET /%2Fdir| => 200 {"entries":[{"n":"in","t":8}]}; O in 2 0 0 0 0 0 0 0 65534 4321; = 0)");
    ROW(root, (clockStep = 61, list("/dir")),
        R"(E kelvane_readdir: /dir; > GET /| => 200 {"entries":[{"n":"dir","t":4}]}
                > GET /%2Fdir| => 200 {"entries":[{"n":"in","t":8}]}; O CACHE-DirRead: adding: in; O in 0,; = 0)");
    ROW(root, (clockStep = 61, DirUpdate("/dir/in"), outcomes({{"in use", recordsInUse}})),
        R"(> GET /| => 200 {"entries":[{"n":"dir","t":4}]}
                > GET /%2Fdir| => 200 {"entries":[{"n":"in","t":8}]}; > GET /%2Fdir%2Fin?action=props| => 404; O in use 0; = 0)");
}

TEST(Calls, Cache) {
    ROW(tree, (clockNow = 1060, show(0, "/d/no")), "O none; = 0");
    ROW(tree, (clockNow = 1061, show(show(0, "/"), "/a.txt")),
        R"(> GET /?action=props| => 404 FILE5; > GET /| => 200 oops; O Failed to parse: oops
                O / 1 0 0 0 0 0 0 0 0 0; O none; = 0)");
    ROW(tree, (show(show(DirFetchRemoteDir("/d", DirGetEntry("/d")), "/d/old"), "/d/b")),
        R"(> GET /%2Fd| => 500 {"entries":[{"n":"b","t":8,"m":98304,"nl":65538,"at":-5}]}
                O old 2 0 0 0 0 0 0 0 65534 4321; O b 2 32768 0 0 2 -5 0 0 65534 4321; = 1)");
    ROW(tree, DirEntryAdd(DirGetEntry("/a.txt"), "x", fileType, &noAttributes) == nullptr, "= 1");
    expectRow(
        "", [] { return DirInit(), DirDestroy(), DirDestroy(), DirInit(), show(0, "/"); },
        "> GET /?action=props| => 200 FILE5; > GET /?action=props| => 404 x; O  1 0 0 0 0 0 0 0 0 0; = 0");
}

TEST(Calls, Names) {
    const std::string& accents = words["ACCENTS"];
    // Which of the children a name finds; then the child is gone.
    const auto found = [](const std::vector<std::string>& children, const std::string& name) {
        return [=] {
            DirEntry* dir = DirEntryNew("", directoryType, &noAttributes);
            for (const std::string& one : children) {
                DirEntryAdd(dir, one.c_str(), fileType, &noAttributes);
            }
            const DirEntry* entry = DirEntryFindChild(dir, name.c_str());
            print(entry != nullptr ? entry->name : "none");
            DirEntryDel(dir, name.c_str());
            const long left = HASH_COUNT(dir->children);
            DirEntryFree(dir);
            return left;
        };
    };
    const auto forms = [](const std::string& text) {
        return [=] {
            for (const auto form : {precompose_string, precompose_string2, decompose_string, decompose_string2}) {
                const char* result = form(text.c_str());
                print(result != nullptr ? result : "null");
            }
            return 0;
        };
    };
    const auto inform = [](const std::string& disk) { return [=] { return ::inform(std::string(disk).data()), 0; }; };
    const auto flags = [](int local) { return [=] { return open_flags_local_to_kelv(local); }; };
    const std::string l = ligature, c = composed, d = decomposed, n(64, 'n'),
                      place = "E path: /nonexistent/Library/kelvane/mount/";
    expectRow("", found({c, "A", "a"}, "a"), "O a; = 2");
    expectRow("", found({c, d}, c), "O NFD; = 0");
    expectRow("", found({"fi", l}, l), "O " + l + "; = 0");
    expectRow("", found({l + c, "fi" + c}, l + d), "O " + l + "NFC; = 1");
    expectRow("", found({l + d, "fi" + c}, l + c), "O fiNFC; = 1");
    expectRow("", found({l + d, "fi" + d}, l + c), "O " + l + "NFD; = 1");
    expectRow("", found({"fi" + d}, l + c), "O fiNFD; = 0");
    expectRow("", found({"\xff"}, "\xff"), "O \xff; = 0");
    expectRow("", found({accents}, accents), "signal 6");
    expectRow("", found({}, accents), "signal 6");
    expectRow("", forms(l + c + d + "\xea\xb0\x80\xe1\x86\xa7"),
              "O " + l + "NFCNFC\xea\xb0\x80\xe1\x86\xa7; O fiNFCNFC\xea\xb0\x80\xe1\x86\xa7; O " + l +
                  "NFDNFD\xe1\x84\x80\xe1\x85\xa1\xe1\x86\xa7; O fiNFDNFD\xe1\x84\x80\xe1\x85\xa1\xe1\x86\xa7; = 0");
    expectRow("", forms(std::string(1024, 'a')), "signal 6");
    expectRow("", forms(std::string(5000, 'a') + c), "signal 6");
    expectRow("", forms("\xed\xa0\x80"), "O null; O null; O null; O null; = 0");
    ROW("", (std::strlen(decompose_string(std::string(1023, 'a').c_str()))), "= 1023");
    expectRow("", flags(O_WRONLY | O_CREAT | O_TRUNC | O_EXCL | O_CLOEXEC | O_DIRECTORY), "= 4865");
    expectRow("", flags(O_RDWR | O_APPEND | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY), "= 4218882");
    expectRow("", inform("A (b) (c)"),
              "E informing finder to add disk to sidebar: A (b) (c); " + place + "c/A (b); = 0");
    expectRow("", inform("Disk(srv)"), "...; " + place + "srv/Dis; = 0");
    expectRow("", inform("Disk (srv"), "E informing finder to add disk to sidebar: Disk (srv; = 0");
    expectRow("", inform(n + " (" + n + ")"), "...; " + place + n + "/" + n + "; = 0");
    expectRow("", inform("(srv)"), "...; signal 6");
    expectRow("", inform("Dis)(srv"), "...; signal 6");
}

TEST(Calls, Transport) {
    ROW(root, transfer(),
        R"(O DirReadOriginalEncodingPathUnlocked: ; > PUT /?q|TYPE => 201 x; O 0 bytes retrieved
           E getURL: path: , query: ; O DirReadOriginalEncodingPathUnlocked: ; E getURL: url: http://HOST/?
           > GET /?|A: 1|B: 2| => 500 aZEROb; O getURL: 3 bytes retrieved; O 3 b; E getURL: path: /, query: (null)
           O DirReadOriginalEncodingPathUnlocked: ; E getURL: url: http://HOST/; > GET /| => 204
           O getURL: 0 bytes retrieved; O 0 ; = 500)");
    ROW(root, (checkedCopy(baseURL, sizeof baseURL, "http://127.0.0.1:1/"), list("/")),
        "...; O CURL error: Couldn't connect to server; exit 1");
    ROW(root, WriteMemoryCallback("", 1, SIZE_MAX / 4, &noReply),
        "O not enough memory (realloc returned NULL); exit 0");
    ROW(root, (DirReadOriginalEncodingPathUnlocked(("/" + std::string(2047, 'a')).c_str()), 0), "...; signal 6");
}

// Replies that nobody should send, grouped by their result.
TEST(Calls, BrokenReplies) {
    const auto listing = [] { return list("/"); };
    const auto properties = [] {
        const int result = DirFetchRemoteAttr("/", &attributes);
        print(attributes.st_size, attributes.st_uid, attributes.st_gid);
        return result;
    };
    const auto write = [] { return show(kelvane_write("/a.txt", "abc", 3, 0, &file), "/a.txt"); };
    const auto mkdir = [] { return kelvane_mkdir("/a.txt", 0); };
    const auto expect = [](const char* start, const std::function<long()>& call, const std::string& end,
                           std::string replies, int line = __builtin_LINE()) {
        for (std::size_t length = 0; !replies.empty(); replies.erase(0, length + 1)) {
            length = std::min(replies.find('\n'), replies.size());
            expectRow(start, call, "...; => " + replies.substr(0, length) + "; " + end, line);
        }
    };
    expect(root, listing, "O a 0,b 0,; = 0",
           "404 TWO\n302 TWO\nHTTP/1.1 302 OK\\r\\nLocation: http://127.0.0.1:1/\\r\\n\\r\\nTWO");
    expect(root, listing, "O ; = 0",
           R"(200
200 DEEP
HTTP/1.1 200 OK\r\nContent-Length: 20\r\n\r\nTWO
200 {"entries":"x"}
200 {"entries":[1,"x",null,true,[],{},{"t":4},{"n":7,"t":8},{"n":"","t":8},{"n":"x/y","t":8},{"n":"\ud800","t":8}]}
200 {"entries":[{"n":"LONG","t":8}]})");
    expect(root, listing, "O x 0,; = 0",
           R"(200 {"ENTRIES":[{"N":"x","n":"y","T":8,"t":[]}],"entries":[]}
200 {"entries":{"k":{"n":"x\u0000b","t":8}}}
200 {"entries":[{"n":"x","t":[],"s":"1","m":{},"b":1e400,"mt":-1e999,"at":99999999999999999999}]})");
    expect(
        root, listing, "O a 2147483647,.. 2147483647,x 7,; = 0",
        R"(200 {"entries":[{"n":"x","t":8},{"n":"a","t":4,"S":3e9},{"t":4},{"n":"..","t":8},{"n":"x","t":8,"s":7}]})");
    expect(root, listing, "O 388890 50007; = 0", R"(200 {"entries":[MANY{}]})");
    expect(root, listing, "signal 6",
           R"(200 []
200 {"entries":[{"n":"x","t":8},{"n":"LONG","t":8}]})");
    expect(root, listing, "E The service's reply lacks the member \"t\".; signal 6", R"(200 {"entries":[{"n":"x"}]})");
    expect(root, listing, "exit 1",
           R"(reset
SSH-2.0 hello\r\n
HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\nabc
resetHTTP/1.1 200 OK\r\nContent-Length: 900\r\n\r\nTWO)");
    expect(root, properties, "O 0 65534 4321; = 1", "200\n200 TEXTS");
    expect(root, properties, "O 0 0 0; = 0", "403 FILE5\n201 FILE5");
    expect(root, properties, "signal 6", R"(200 {"s":1,"b":1,"m":33188,"nl":1,"at":1,"mt":1})");
    expect(
        root, [] { return DirGetVFS() == nullptr ? 0 : 1; }, "= 0", "200\n500 {}");
    expect(tree, write, "O a.txt 2 0 0 0 0 0 0 0 65534 4321; = 3", "200 stored\n299 DEEP\n200 TEXTS");
    expect(tree, write, "E UPLOAD failed due to transfer closed with 8 bytes remaining to read; exit 1",
           R"(HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\n{)");
    expect(tree, mkdir, "= 0", "200 call({\"hc\":500}); => 404\n200 {\"HC\":200,\"hc\":5}; => 404");
    expect(tree, mkdir, "E   -> FAILED; = -2", "200 {\"hc\":\"200\"}\n200 {\"hc\":1e99}\n200 {\"hc\":500}");
    expect(tree, mkdir, "E   -> cannot overwrite; = -2", "200 {\"hc\":409}");
    expect(tree, mkdir, "E The service's reply lacks the member \"hc\".; signal 6", "200 [200]\n200 {}");
    expect(
        tree, [] { return readFile(0); }, "O CURL error: Transferred a partial file; exit 1",
        R"(HTTP/1.1 206 OK\r\nContent-Length: 9\r\n\r\n{)");
    const auto twice = [] {
        return parseReply("x") == nullptr && parseReply("{}") != nullptr ? parseReply("{}")->type : 0;
    };
    expectRow("", twice, "signal 6");
}
