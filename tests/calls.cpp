// Makes the calls that its arguments name, behind the service's base URL, and writes what happens to standard output,
// each line with a tag. calls_test.py has the rows.
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
#include "kelvane_vfs/shutdown.h"
#include "kelvane_vfs/transport.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <map>
#include <optional>
#include <sstream>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using Arguments = const std::vector<char*>&;

time_t now = 1000, step = 0; // each time it is read, the clock moves on by `step` seconds

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

// Each line is written by itself, because the test writes to the same file.
std::nullopt_t note(const std::string& tag, const std::string& output) {
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        line = tag + line + "\n";
        [[maybe_unused]] const ssize_t written = write(STDOUT_FILENO, line.data(), line.size());
    }
    return std::nullopt;
}

FILE* noteStream(const char* tag) {
    const auto noteOutput = [](void* cookie, const char* bytes, std::size_t size) {
        note(static_cast<char*>(cookie), {bytes, size});
        return static_cast<ssize_t>(size);
    };
    FILE* stream = fopencookie(const_cast<char*>(tag), "w", {nullptr, noteOutput, nullptr, nullptr});
    setvbuf(stream, nullptr, _IOLBF, 0);
    return stream;
}

template <typename... Parts> std::nullopt_t print(const Parts&... parts) {
    std::ostringstream line;
    ((line << " " << parts), ...);
    return note("O ", line.str().substr(1));
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

} // namespace

// These replace the system's functions, and the daemon's main (linked with --wrap).
#define REPLACE(type, call, result)                                                                                    \
    extern "C" type __wrap_##call {                                                                                    \
        return result;                                                                                                 \
    }
REPLACE(time_t, time(time_t*), (now += step) - step)
REPLACE(uid_t, getuid(), 65534)
REPLACE(gid_t, getgid(), 4321)
extern "C" int __wrap_pthread_detach(pthread_t thread) {
    if (threadPipe[0] == 0) { // the registration's thread is waited for, but not those of a whole daemon
        pthread_join(thread, nullptr);
    }
    print("detached");
    return 0;
}
extern "C" int __real_main(int argc, char* argv[]);

namespace {

const std::map<std::string, std::function<std::optional<long>(Arguments)>> calls = {
    {"run", [](Arguments a) { return __real_main(4, const_cast<char**>(a.data())); }},
    {"clock", [](Arguments a) { return now = std::atol(a[0]), std::nullopt; }},
    {"step", [](Arguments a) { return step = std::atol(a[0]), std::nullopt; }},
    {"init", [](Arguments) { return DirInit(), std::nullopt; }},
    {"destroy", [](Arguments) { return DirDestroy(), std::nullopt; }},
    {"show", [](Arguments a) { return show(DirGetEntry(a[0])); }},
    {"fetch", [](Arguments a) { return DirFetchRemoteDir(a[0], DirGetEntry(a[0])); }},
    {"update", [](Arguments a) { return DirUpdate(a[0]), recordsInUse; }},
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
    {"register", [](Arguments a) { return finderName = a[0], finderInformed = 0, std::nullopt; }},
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
    {"flags", [](Arguments a) { return open_flags_local_to_kelv(std::atoi(a[0])); }},
    {"inform", [](Arguments a) { return inform(a[0]), std::nullopt; }},
    {"signals", [](Arguments) { return signals_init(), std::raise(SIGPIPE); }},
};

} // namespace

extern "C" int __wrap_main(int argc, char* argv[]) {
    stdout = noteStream("O ");
    stderr = noteStream("E ");
    alarm(100);
    finderInformed = 1;
    std::string(argv[1]).copy(baseURL, sizeof baseURL - 1);
    initLibCurl();
    for (int i = 2; i < argc; ++i) {
        note("$ ", argv[i]);
        char* rest = argv[i];
        const auto& call = calls.at(strsep(&rest, " "));
        std::vector<char*> arguments;
        while (rest != nullptr) {
            arguments.push_back(strsep(&rest, ","));
        }
        const std::optional<long> result = call(arguments);
        note("= ", result ? std::to_string(*result) : "");
    }
    // A lock that a call keeps would stop every other thread.
    if (dirEntryTop != nullptr) {
        std::thread(DirLock).join();
    }
    return 0;
}
