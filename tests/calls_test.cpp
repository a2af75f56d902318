#include "InformFinder/finder_sidebar.h"
#include "InformFinder/name_forms.h"
#include "cache/path_lookup.h"
#include "cache/refresh.h"
#include "cache/remote_fetch.h"
#include "cache/root.h"
#include "cache/xattrs.h"
#include "kelvane_vfs/operations.h"
#include "kelvane_vfs/process.h"
#include "kelvane_vfs/protocol.h"
#include "kelvane_vfs/reply_tree.h"
#include "kelvane_vfs/shutdown.h"
#include "kelvane_vfs/transport.h"
#include "tests/scripted_calls.h"

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sstream>

namespace {

struct fuse_file_info file = {.flags = -5, .fh = O_RDWR | O_APPEND};
struct statvfs volume = {.f_bsize = 7};
struct stat st = {};
ReplyBuffer noReply = {};
std::string text = "???????";
const std::string data = std::string(131072, 'a') + std::string(131072, 'b') + std::string(37856, 'c');
char headers[] = "\nA: 1\n\nB: 2\n";

std::ostream& operator<<(std::ostream& out, const struct stat& s) {
    return out << s.st_mode << " " << s.st_size << " " << s.st_blocks << " " << s.st_nlink << " " << s.st_atime << " "
               << s.st_mtime << " " << s.st_ctime << " " << s.st_uid << " " << s.st_gid;
}

std::ostream& operator<<(std::ostream& out, const struct statvfs& v) {
    return out << static_cast<long>(v.f_bsize) << " " << v.f_frsize << " " << v.f_blocks << " " << v.f_bfree << " "
               << v.f_bavail << " " << v.f_files + v.f_ffree + v.f_favail + v.f_fsid << " " << v.f_flag << " "
               << v.f_namemax;
}

template <typename... Parts> std::nullopt_t print(const Parts&... parts) {
    std::ostringstream line;
    ((line << " " << parts), ...);
    const std::string printed = line.str().substr(1) + "\n";
    std::fwrite(printed.data(), 1, printed.size(), stdout);
    return std::nullopt;
}

std::nullopt_t show(const DirEntry* entry) {
    return entry != nullptr ? print(entry->name, entry->type, entry->st) : print("none");
}

int add(void*, const char* name, const struct stat* attributes, off_t) {
    text += std::string(" ") + name + " " + std::to_string(attributes->st_size);
    return 1;
}

// Prints which of the children of a directory a name finds, and their number.
std::nullopt_t pick(Arguments a) {
    DirEntry* dir = DirEntryNew("", directoryType, &st);
    std::for_each(a.begin() + 1, a.end(), [&](char* name) { DirEntryAdd(dir, name, fileType, &st); });
    const DirEntry* entry = DirEntryFindChild(dir, a[0]);
    print(entry != nullptr ? entry->name : "none", HASH_COUNT(dir->children));
    return DirEntryFree(dir), std::nullopt;
}

// The lines of the registration's thread come last.
long getFirstAttributes(Arguments a) {
    finderName = a[0];
    finderInformed = 0;
    flockfile(stderr);
    print(kelvane_getattr("/no", &st), kelvane_getattr("/no", &st));
    funlockfile(stderr);
    while (!transcript().ends_with("srv/Disk\n")) {
        sched_yield();
    }
    return finderInformed;
}

} // namespace

std::map<std::string, std::function<std::optional<long>(Arguments)>> calls = {
    {"trace", [](Arguments) { return traced = true, std::nullopt; }},
    {"clock", [](Arguments a) { return clockNow = std::atol(a[0]), std::nullopt; }},
    {"step", [](Arguments a) { return clockStep = std::atol(a[0]), std::nullopt; }},
    {"init", [](Arguments) { return DirInit(), std::nullopt; }},
    {"destroy", [](Arguments) { return DirDestroy(), std::nullopt; }},
    {"show", [](Arguments a) { return show(DirGetEntry(a[0])); }},
    {"fetch", [](Arguments a) { return DirFetchRemoteDir(a[0], DirGetEntry(a[0])); }},
    {"update", [](Arguments a) { return DirUpdate(a[0]), recordsInUse; }},
    {"add", [](Arguments a) { return DirEntryAdd(DirGetEntry(a[0]), "x", fileType, &st) != nullptr; }},
    {"pick", pick},
    {"mkdir", [](Arguments a) { return kelvane_mkdir(a[0], 0700); }},
    {"rmdir", [](Arguments a) { return kelvane_rmdir(a[0]); }},
    {"unlink", [](Arguments a) { return kelvane_unlink(a[0]); }},
    {"rename", [](Arguments a) { return kelvane_rename(a[0], a[1]); }},
    {"truncate", [](Arguments a) { return kelvane_truncate(a[0], std::atol(a[1])); }},
    {"create", [](Arguments a) { return print(kelvane_create(a[0], 0100644, &file)), file.fh; }},
    {"open", [](Arguments a) { return print(kelvane_open(a[0], &file)), file.fh; }},
    {"read", [](Arguments a) { return print(kelvane_read(a[0], text.data(), 4, std::atol(a[1]), &file), text); }},
    {"write", [](Arguments a) { return kelvane_write(a[0], data.data(), std::atol(a[1]), std::atol(a[2]), &file); }},
    {"flush", [](Arguments a) { return kelvane_flush(a[0], &file); }},
    {"getattr", [](Arguments a) { return print(kelvane_getattr(a[0], &st), st); }},
    {"register", getFirstAttributes},
    {"chmod", [](Arguments a) { return kelvane_chmod(a[0], static_cast<mode_t>(0200600)); }},
    {"setattr", [](Arguments a) { return kelvane_setattr_x(a[0], nullptr); }},
    {"list", [](Arguments a) { return text = "is", print(kelvane_readdir(a[0], nullptr, add, 0, nullptr), text); }},
    {"statfs", [](Arguments a) { return print(kelvane_statfs("/", a.empty() ? &volume : nullptr), volume); }},
    {"setxattr", [](Arguments a) { return DirEntryAddXAttr("/a.txt", a[0], a[1], 3), std::nullopt; }},
    {"getxattr", [](Arguments a) { return print(kelvane_getxattr("/a.txt", a[0], text.data(), 3, 2), text); }},
    {"removexattr", [](Arguments a) { return kelvane_removexattr("/a.txt", a[0]); }},
    {"listxattr", [](Arguments) { return kelvane_listxattr("/a.txt", nullptr, 0); }},
    {"get", [](Arguments a) { return std::free(getURL("", a[0], nullptr, headers, nullptr)), std::nullopt; }},
    {"put", [](Arguments a) { return std::free(postURL("", a[0], "", 0, nullptr, nullptr)), std::nullopt; }},
    {"spell", [](Arguments a) { return std::free(DirReadOriginalEncodingPath(a[0])), std::nullopt; }},
    {"overflow", [](Arguments) { return WriteMemoryCallback("", 1, SIZE_MAX / 4, &noReply); }},
    {"nfc", [](Arguments a) { return precompose_string(a[0]) != nullptr; }},
    {"parse", [](Arguments a) { return parseReply(a[0]) != nullptr; }},
    {"flags", [](Arguments a) { return open_flags_local_to_kelv(std::atoi(a[0])); }},
    {"inform", [](Arguments a) { return inform(a[0]), std::nullopt; }},
    {"signals", [](Arguments) { return signals_init(), std::raise(SIGPIPE); }},
};

std::map<std::string, std::string> words = {
    {"DIR4096", R"({"s":4096,"b":8,"m":16877,"nl":1,"at":11,"mt":22,"ct":33})"},
    {"FILE5", R"({"s":5,"b":8,"m":33188,"nl":1,"at":11,"mt":22,"ct":33})"},
    {"SOCKET", R"({"s":9,"b":8,"m":49536,"nl":1,"at":11,"mt":22,"ct":33})"},
    {"OTHERS", "8 1 11 22 33 65534 4321"},
    {"ZEROS", "0 0 0 0 0 0 0 0 0"},
    {"TEXTS", R"({"s":"1","b":"1","m":"x","nl":[],"at":{},"mt":null,"ct":"x"})"},
    {"AB", R"({"entries":[{"n":"a","t":8},{"n":"b","t":4}]})"},
    {"LONG", std::string(2000000, 'n')},
    {"NNN", std::string(1021, 'n')},
    {"N64", std::string(64, 'n')},
    {"BYTE0", std::string(1, '\0')},
    {"NFC", "\u00e9"},
    {"NFD", "e\u0301"},
    {"LIG", "\ufb01"},
    {"BAD", "\xff"},
    {"HANGUL", "\uac00\u11a7"},
    {"JAMO", "\u1100\u1161\u11a7"},
    {"CREATE", std::to_string(O_WRONLY | O_CREAT | O_TRUNC | O_EXCL | O_CLOEXEC | O_DIRECTORY)},
    {"APPEND", std::to_string(O_RDWR | O_APPEND | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY)},
    {"FAIL", "E   -> FAILED"},
    {"TYPE", "Content-Type: application/octetstream|"},
    {"HOME", "/nonexistent/Library/kelvane/mount/"},
    {"ONCE", "write /a.txt,3,0; E kelvane_write: path: /a.txt size: 3 offset: 0; SEND0|TYPEa*3"},
    {"SEND", "> PUT /%2Fa.txt?action=write&flags=8194&offset="},
    // A write over a connection that is closed at that moment.
    {"AGAIN", "$ ONCE; SEND0|TYPEa*3; < keep200 FILE5; = 3"},
};

namespace {

const char* const root = "$ init; > GET /?action=props|; < 200 DIR4096\n";
const char* const tree = R"($ init; > GET /?action=props|; < 200 DIR4096; $ show /d/x; > GET /|
  < 200 {"entries":[{"n":"a.txt","t":8,"s":5},{"n":"dir x","t":4,"s":0},{"n":"d","t":4},{"n":"NFC","t":8,"s":1}]}
  > GET /%2Fd|; < 200 {"entries":[{"n":"old","t":8}]}; O none
  $ show /dir x/x; > GET /%2Fdir%20x|; < 200 {"entries":[]}; O none
)";

} // namespace

TEST(Calls, Operations) {
    expectRows(__FILE__, __LINE__, tree, R"(
$ mkdir /dir x/new; E kelvane_mkdir: /dir x/new; > GET /%2Fdir%20x%2Fnew?action=mkdir|; < 200 {"hc":200}
  > GET /%2Fdir%20x%2Fnew?action=props|; < 200 DIR4096; = 0; $ show /dir x/new; O new 1 16877 4096 OTHERS
$ mkdir /m; E kelvane_mkdir: /m; > GET /%2Fm?action=mkdir|; < 201 {"hc":200}; FAIL; = -2
$ mkdir /m; ? 200 call({"hc":500}); ? 200 {"HC":200,"hc":5}; > GET /%2Fm?action=props|; < 404; = 0
$ mkdir /m; ? 200 {"hc":"200"}; ? 200 {"hc":500}; FAIL; = -2
$ mkdir /m; ? 200 [200]; ? 200 {}; E The service's reply lacks the member "hc".; signal 6
$ unlink /a.txt; E kelvane_unlink: /a.txt; > GET /%2Fa.txt?action=unlink|; < 204; > GET /%2Fa.txt?action=props|
  < 404 no; = 0; $ show /a.txt; O none
$ unlink /d/old; ? 200 {"hc":409}; > GET /%2Fd%2Fold?action=props|; < 200 FILE5; = 0
  $ rmdir /d; E kelvane_rmdir: /d; > GET /%2Fd?action=rmdir|; < 200 {"hc":409}; > GET /%2Fd?action=props|; < 204; = 0
  $ show /d/old; O none
$ rename /a.txt,/dir x/b.txt; E kelvane_rename: /a.txt -> /dir x/b.txt
  > GET /%2Fa.txt?action=rename&to=%2Fdir%20x%2Fb.txt&replace=1|; < 200 {"hc":200}; > GET /%2Fa.txt?action=props|
  < 404; > GET /%2Fdir%20x%2Fb.txt?action=props|; < 200 FILE5; = 0; $ show /a.txt; O none
  $ show /dir x/b.txt; O b.txt 2 33188 5 OTHERS
$ rename /d/old,/NFD; ...; > GET /%2Fd%2Fold?action=rename&to=%2F%C3%A9&replace=1|; < 200 {"hc":409}
  E   -> cannot overwrite; = -2
$ truncate /a.txt,5000000000; E kelvane_truncate: /a.txt 5000000000
  > GET /%2Fa.txt?action=truncate&offset=5000000000|; < 200 {"hc":409}; > GET /%2Fa.txt?action=props|; < 200 SOCKET
  = 0; $ show /a.txt; O a.txt 1 49536 9 OTHERS
$ create /d/c; E kelvane_create: /d/c mode: 33188 flags: -5 uid: 65534; > GET /%2Fd%2Fc?action=create&mode=33188|
  < 500; > GET /%2Fd%2Fc?action=props|; < 200 FILE5; O 0; = -5; $ show /d/c; O c 2 33188 5 OTHERS
$ open /d/no; E kelvane_open: /d/no flags: -5; FAIL; O -2; = 1026
  $ open /d/old; E kelvane_open: /d/old flags: -5; O 0; = -5; $ flush /m; E kelvane_flush: /m; = 0
  $ chmod /a.txt; E kelvane_chmod: /a.txt -> 384; = 0; $ setattr /m; E kelvane_setattr_x: /m; = 0
  $ signals; O settings up signal handlers; = 0
$ read /a.txt,2; E kelvane_read: /a.txt (2, 4); > GET /%2Fa.txt|Range: bytes=2-5|; < 206 cBYTE0efgh; O 4 cBYTE0ef???
$ read /a.txt,2; ? 206 cd; O 2 cd?????
$ read /a.txt,2; ? 200 abcdefgh; ? 404 abcdef; O 4 cdef???
$ read /a.txt,2; ? 416 n; O 0 ???????
$ getattr /a.txt; E kelvane_getattr: /a.txt; O 0 0 5 0 0 0 0 0 65534 4321
  $ getattr /no; E kelvane_getattr: /no; O No attr for: /no; O -2 ZEROS
$ register Disk (srv); E kelvane_getattr: /no; O No attr for: /no; E kelvane_getattr: /no; O No attr for: /no; O -2 -2
  E informing finder to add disk to sidebar: Disk (srv); E path: HOMEsrv/Disk; = 1
$ list /a.txt; E kelvane_readdir: /a.txt; O -2 is; $ list /no; E kelvane_readdir: /no; O -2 is
$ statfs; > GET /?action=statvfs|; < 503 {}; O 0 7 0 0 0 0 0 0 0; $ statfs; > GET /?action=statvfs|; < 200
  O 0 7 0 0 0 0 0 0 0; $ statfs null; > GET /?action=statvfs|
  < 200 {"bsize":-4,"frsize":2,"blocks":9000000000,"bfree":-1,"bavail":6,"namemax":255}; O 0 7 0 0 0 0 0 0 0
  $ statfs; O 0 -4 2 2147483647 4294967295 6 0 2 255; $ update /x; > GET /%2Fx?action=props|; < 200 FILE5; = 0
$ setxattr NFC,one; $ setxattr NFD,two; $ getxattr NFC; E kelvane_getxattr: /a.txt - NFC (size: 3, pos: 2)
  O 3 ??two??; $ removexattr NFC; E kelvane_removexattr: /a.txt - NFC; = 0; $ listxattr; E kelvane_listxattr: /a.txt
  = 0; $ getxattr NFD; E kelvane_getxattr: /a.txt - NFD (size: 3, pos: 2); O -93 ??two??

// Writes in parts.
$ write /a.txt,300000,5000000000; ...; SEND5000000000|TYPEa*131072; < 200 SOCKET; SEND5000131072|TYPEb*131072
  < 201 SOCKET; SEND5000262144|TYPEc*37856; < 200 FILE5; = 300000; $ show /a.txt; O a.txt 2 33188 5 OTHERS
$ write /a.txt,131073,0; ...; SEND0|TYPEa*131072; < 200 FILE5; SEND131072|TYPEb*1; < 300; = -1
  $ write /a.txt,0,0; E kelvane_write: path: /a.txt size: 0 offset: 0; = 0
$ write /a.txt,3,0; ? 200 stored; ? 299 [; ? 200 TEXTS; = 3; $ show /a.txt; O a.txt 2 0 0 0 0 0 0 0 65534 4321
$ write /a.txt,3,0; ...; E UPLOAD failed due to Empty reply from server; exit 1
$ ONCE; < keep200 FILE5; = 3; AGAIN; AGAIN; AGAIN; AGAIN; AGAIN; AGAIN; AGAIN
$ write /NFD,1,0; ? 200 FILE5; = 1; $ unlink /NFC; E kelvane_unlink: /NFC; > GET /%2Fe%CC%81?action=unlink|; < 500
  FAIL; = -2; $ list /; E kelvane_readdir: /; O CACHE-DirRead: adding: a.txt; O CACHE-DirRead: adding: dir x
  O CACHE-DirRead: adding: d; O CACHE-DirRead: adding: NFD; O 0 is a.txt 5 dir x 0 d 0 NFD 5

// Refreshes.
$ update /a.txt; ? 200; ? 200 TEXTS; = 0; $ show /a.txt; O a.txt 2 0 0 0 0 0 0 0 65534 4321
$ update /a.txt; ? 403 FILE5; ? 201 FILE5; = 0; $ show /a.txt; O none

// The age of the cache, and what it takes in.
$ clock 1060; $ show /d/no; O none; $ show /a.txt/x; O none; $ update /no/x; = 0; $ add /a.txt; = 0
  $ clock 1061; $ show /; > GET /?action=props|; < 404 FILE5; > GET /|; < 200
  O Failed to parse: ; O / 1 ZEROS; $ show /a.txt; O none
$ fetch /d; > GET /%2Fd|; < 500 {"entries":[{"n":"b","t":10,"m":98304,"nl":65538,"at":-5}]}; = 1
  $ show /d/old; O old 2 0 0 0 0 0 0 0 65534 4321; $ show /d/b; O b 2 32768 0 0 2 -5 0 0 65534 4321
  $ destroy; $ destroy; $ init; > GET /?action=props|; < 404 x; $ show /; O  1 ZEROS
)");
}

TEST(Calls, Replies) {
    expectRows(__FILE__, __LINE__, root, R"(
// A look-up drops a tree that is more than a minute old, unless a calling function still uses the tree. The clock moves
// on by more than a minute each time it is read.
$ step 61; $ show /dir/in; > GET /|; < 200 {"entries":[{"n":"dir","t":4}]}; > GET /%2Fdir|
  < 200 {"entries":[{"n":"in","t":8}]}; O in 2 0 0 0 0 0 0 0 65534 4321
$ step 61; $ list /dir; E kelvane_readdir: /dir; > GET /|; < 200 {"entries":[{"n":"dir","t":4}]}; > GET /%2Fdir|
  < 200 {"entries":[{"n":"in","t":8}]}; O CACHE-DirRead: adding: in; O 0 is in 0
$ step 61; $ update /dir/in; > GET /|; < 200 {"entries":[{"n":"dir","t":4}]}; > GET /%2Fdir|
  < 200 {"entries":[{"n":"in","t":8}]}; > GET /%2Fdir%2Fin?action=props|; < 404; = 0

// The lines of the transport and of the path look-up.
$ trace; $ list /; E kelvane_readdir: /; O DirReadOriginalEncodingPathUnlocked: /; E getURL: path: , query: (null)
  O DirReadOriginalEncodingPathUnlocked: ; E getURL: url: BASE; > GET /|; < 200 {"entries":[{"n":"NFC","t":4}]}
  O getURL: 30 bytes retrieved; O CACHE-DirRead: adding: NFC; O 0 is NFC 0; $ show //NFD/in/
  E getURL: path: /NFD, query: (null); O DirReadOriginalEncodingPathUnlocked: NFD; O encoded_path=/NFC
  E getURL: url: BASE%2F%C3%A9; > GET /%2F%C3%A9|; < 200 {"entries":[{"n":"in","t":8,"s":3}]}
  O getURL: 36 bytes retrieved; O in 2 0 3 0 0 0 0 0 65534 4321; $ show /; O  1 16877 4096 OTHERS
  $ put q; O DirReadOriginalEncodingPathUnlocked: ; > PUT /?q|TYPE; < 201 x; O 0 bytes retrieved; $ get q
  E getURL: path: , query: q; O DirReadOriginalEncodingPathUnlocked: ; E getURL: url: BASE?q; > GET /?q|A: 1|B: 2|
  < 204; O getURL: 0 bytes retrieved; $ overflow; O not enough memory (realloc returned NULL)

// Transfers that fail, and replies that nobody should send.
$ spell /NNNNNNnnnnn; ...; signal 6
$ parse x; = 0; $ parse {}; = 1; $ parse {}; signal 6
$ list /; ? 404 AB; ? 302 AB; ? HTTP/1.1 302 OK\r\nLocation: BASE\r\n\r\nAB; O 0 is a 0 b 0
$ list /; ? 200 [; O Failed to parse: [; O 0 is
$ list /; ? HTTP/1.1 200 OK\r\nContent-Length: 20\r\n\r\nAB; ? 200 {"entries":"LONG"}
  ? 200 {"entries":[1,"x",null,true,[],{},{"t":4},{"n":7,"t":8},{"n":"","t":8},{"n":"x/y","t":8}]}
  ? 200 {"entries":[{"n":"LONG","t":8}]}; O 0 is
$ list /; ? 200 {"Entries":{"k":{"N":"x","t":[],"s":"1","m":{},"b":1e400,"mt":-1e999,"at":99999999999}}}; O 0 is x 0
$ list /; ? 200 {"entries":[{"n":"x","t":8},{"n":"a","t":4,"S":3e9},{"t":4},{"n":"..","t":8},{"n":"x","t":8,"s":7}]}
  O 0 is a 2147483647 .. 2147483647 x 7
$ list /; E kelvane_readdir: /; > GET /|
  < 200 {"entries":[{"n":"NNN","t":8},{"n":"NNNb","t":8},{"n":"NNNc","t":8},{"n":"NNNd","t":8},{"n":"e","t":8}]}
  O CACHE-DirRead: adding: NNN; O CACHE-DirRead: adding: NNNb; O CACHE-DirRead: adding: NNNc
  O CACHE-DirRead: adding: NNNd; O CACHE-DirRead: adding: e; O 0 is NNN 0 NNNb 0 NNNc 0 NNNd 0 e 0
$ list /; ? 200 []; ? 200 {"entries":[{"n":"x"}]}; ? 200 {"entries":[{"n":"x","t":8},{"n":"LONG","t":8}]}; signal 6
$ list /; E kelvane_readdir: /; > GET /|; < reset; O CURL error: Failure when receiving data from the peer; exit 1
$ list /; ? SSH-2.0 hello\r\n; ? HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\nabc
  ? HTTP/1.1 200 OK\r\nContent-Length: 900\r\n\r\nAB; exit 1
)");
}

TEST(Calls, Names) {
    expectRows(__FILE__, __LINE__, "", R"(
$ pick a,NFC,A,a; O a 3; $ pick NFC,NFC,NFD; O NFD 1; $ pick LIG,fi,LIG; O LIG 1; $ pick BAD,BAD; O BAD 1
  $ pick BAD,a; O none 1; $ nfc BAD; = 0; $ pick LIGNFD,LIGNFC,fiNFC; O LIGNFC 2; $ pick LIGNFC,LIGNFD,fiNFC; O fiNFC 2
  $ pick LIGNFC,LIGNFD,fiNFD; O LIGNFD 2; $ pick LIGNFC,fiNFD; O fiNFD 1; $ pick NNNnn; O none 0
  $ pick JAMO,HANGUL; O HANGUL 1; $ flags CREATE; = 4865; $ flags APPEND; = 4218882
$ pick NNNNFC,NNNNFC; signal 6
$ pick NNNnnn; signal 6
$ inform A (b) (c); E informing finder to add disk to sidebar: A (b) (c); E path: HOMEc/A (b); $ inform Disk (srv
  E informing finder to add disk to sidebar: Disk (srv; $ inform N64 (N64)
  E informing finder to add disk to sidebar: N64 (N64); E path: HOMEN64/N64
$ inform Disk(srv); ...; E path: HOMEsrv/Dis
$ inform Dis)(srv; ...; signal 6
)");
}
