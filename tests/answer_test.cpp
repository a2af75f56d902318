// Plain calls of the server's answers: what is synced, and what a failing disk becomes. The linker puts functions of
// this file in the place of the system's.
#include "storage/reply.h"
#include "storage/tree.h"

#include <filesystem>
#include <fstream>
#include <iostream>
#include <linux/openat2.h>

namespace {

int syncs = 0;
std::string failingCall; // or the name for which fstatat fails
int failing = 0;         // the error number, or 0 for "wrote nothing"
int failures = 0;        // how many calls will still fail

bool fails(const char* call) {
    const bool isFailing = call == failingCall && failures-- > 0;
    errno = failing;
    return isFailing;
}

} // namespace

extern "C" {
int __wrap_fsync(int) {
    return ++syncs, -fails("fsync");
}
int __wrap_fdatasync(int) __attribute__((alias("__wrap_fsync")));
ssize_t __real_pwrite(int file, const void* bytes, std::size_t size, off_t offset);
ssize_t __wrap_pwrite(int file, const void* bytes, std::size_t size, off_t offset) {
    return fails("pwrite") ? -(failing != 0) : __real_pwrite(file, bytes, size, offset);
}
ssize_t __real_pread(int file, void* bytes, std::size_t size, off_t offset);
ssize_t __wrap_pread(int file, void* bytes, std::size_t size, off_t offset) {
    return fails("pread") ? -1 : __real_pread(file, bytes, size, offset);
}
int __real_fstatat(int directory, const char* name, struct stat* st, int flags);
int __wrap_fstatat(int directory, const char* name, struct stat* st, int flags) {
    return fails(name) ? -1 : __real_fstatat(directory, name, st, flags);
}
long __real_syscall(long number, int directory, const char* name, const open_how* how, std::size_t size);
long __wrap_syscall(long number, int directory, const char* name, const open_how* how, std::size_t size) {
    return fails("openat2") || fails(name) ? -1 : __real_syscall(number, directory, name, how, size);
}
}

int main() {
    const std::filesystem::path tree = std::filesystem::temp_directory_path() / ("answers-" + std::to_string(getpid()));
    std::filesystem::create_directories(tree / "d");
    std::ofstream(tree / "f") << "content";
    std::ofstream(tree / "bad") << "";
    std::ofstream(tree / "e\xcc\x81") << "";
    std::filesystem::create_symlink("../f", tree / "d/link");
    int wrong = openTree(tree.c_str(), true);
    // A file and every directory whose entries have changed are synced.
    const struct {
        const char* text;
        std::string outcome; // the status, and the number of syncs
        const char* call = "";
        int error = 0;
    } rows[] = {
        {"/new?action=create", "204, 2"},
        {"/new?action=write&offset=0", "200, 1"},
        {"/new", "200, 0"},
        {"/new?action=truncate&offset=9", "204, 1"},
        {"/m?action=mkdir", "200, 1"},
        {"/new?action=rename&to=d%2Fx", "200, 2"},
        {"/d/x?action=unlink", "204, 1"},
        {"/m?action=rmdir", "204, 1"},
        {"/m?action=rmdir", "404, 0"},
        {"/", "500, 0, broken off", "bad", EIO},
        {"/", "200, 0", "bad", ENOENT},
        {"/", "403, 0", "bad", EACCES},
        {"/d", "500, 0, broken off", "d/link", EIO},
        {"/f?action=rename&to=bad&replace=1", "500, 0", "bad", EIO},
        {"/%C3%A9?action=unlink", "500, 0", "\xc3\xa9", EIO}, // not the other spelling in its place
        {"/f", "500, 0, broken off", "pread", EIO},
        {"/f?action=write&offset=0", "500, 1", "pwrite", EPERM}, // of a mount that was cut off
        {"/f?action=write&offset=0", "507, 1", "pwrite", ENOSPC},
        {"/f?action=write&offset=0", "500, 1", "pwrite", 0},
        {"/f?action=write&offset=0", "500, 1", "fsync", EIO},
        {"/f?action=write&offset=0", "200, 1", "fsync", EINVAL}, // there is nothing to wait for
        {"/new?action=create", "500, 1", "fsync", EIO},
        {"/f?action=props", "503, 0, broken off", "openat2", EMFILE},
        {"/f?action=props", "200, 0", "openat2", EAGAIN}, // the walk has met renames
        {"/?action=props", "500, 0, broken off", "gone"},
        {"/f", "500, 0, broken off"},
        {"/x?action=create", "500, 0"},
    };
    for (const auto& row : rows) {
        syncs = 0;
        failingCall = row.call;
        failing = row.error;
        failures = 100;
        if (failingCall == "gone") {
            std::filesystem::remove_all(tree);
        }
        Request request;
        request.admitted = true;
        request.body = "body";
        parseTarget(row.text, "/", request.target);
        Reply reply = request.target.action == Action::write ? openUpload(request) : Reply();
        reply = reply.status != 0 ? std::move(reply) : answer(request);
        const char* const end = std::holds_alternative<BrokenOff>(reply.body) ? ", broken off" : "";
        const std::string outcome = std::to_string(reply.status) + ", " + std::to_string(syncs) + end;
        if (outcome != row.outcome) {
            std::cout << row.call << " " << row.text << ": " << outcome << " instead of " << row.outcome << "\n";
            ++wrong;
        }
    }
    return wrong;
}
