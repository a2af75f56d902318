// Plain calls of the server's answers: what is synced, and what a failing disk becomes. The linker puts functions of
// this file in the place of the system's.
#include "storage/reply.h"
#include "storage/tree.h"

#include <atomic>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <thread>

namespace {

int syncs = 0;
std::string failingCall; // or the name for which fstatat fails
int failing = 0;         // the error number, or 0 for "wrote nothing"

bool fails(const char* call) {
    errno = failing;
    return call == failingCall;
}

} // namespace

extern "C" {
int __wrap_fsync(int) {
    return ++syncs, -fails("fsync");
}
int __wrap_fdatasync(int) {
    return ++syncs, -fails("fsync");
}
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
}

namespace {

std::filesystem::path makeTree() {
    std::filesystem::path tree = testing::TempDir() + "answers-" + std::to_string(getpid());
    std::filesystem::create_directories(tree / "d");
    std::ofstream(tree / "f") << "content";
    std::ofstream(tree / "bad") << "";
    EXPECT_EQ(openTree(tree.c_str(), true), 0);
    return tree;
}

} // namespace

// The kernel does not finish a walk through ".." that meets a rename; then it is begun again.
TEST(AnswerTest, RenamesMeanwhile) {
    const std::filesystem::path tree = makeTree();
    std::filesystem::create_symlink("../f", tree / "d/link");
    std::atomic<bool> isDone = false;
    std::thread renamer([&] {
        while (!isDone) {
            std::filesystem::rename(tree / "bad", tree / "worse");
            std::filesystem::rename(tree / "worse", tree / "bad");
        }
    });
    struct stat st;
    int failures = 0;
    for (int i = 0; i < 20000; ++i) {
        failures += lookUp("d/link", st).number < 0 ? 1 : 0;
    }
    isDone = true;
    renamer.join();
    EXPECT_EQ(failures, 0);
    std::filesystem::remove_all(tree);
}

TEST(AnswerTest, SyncsAndFailures) {
    const std::filesystem::path tree = makeTree();
    rlimit descriptors;
    getrlimit(RLIMIT_NOFILE, &descriptors);
    // A file and every directory whose entries have changed are synced.
    const struct {
        const char* text;
        unsigned status;
        int syncs;
        const char* call = "";
        int error = 0;
        bool isBrokenOff = false;
    } rows[] = {
        {"/new?action=create", 204, 2},
        {"/new?action=write&offset=0", 200, 1},
        {"/new", 200, 0},
        {"/new?action=truncate&offset=9", 204, 1},
        {"/m?action=mkdir", 200, 1},
        {"/new?action=rename&to=d%2Fx", 200, 2},
        {"/d/x?action=unlink", 204, 1},
        {"/m?action=rmdir", 204, 1},
        {"/m?action=rmdir", 404, 0},
        {"/", 500, 0, "bad", EIO, true},
        {"/", 500, 0, "bad", ENOTCONN, true},
        {"/", 200, 0, "bad", ENOENT},
        {"/f", 500, 0, "pread", EIO, true},
        {"/f?action=write&offset=0", 500, 1, "pwrite", EPERM}, // of a mount that was cut off
        {"/f?action=write&offset=0", 507, 1, "pwrite", ENOSPC},
        {"/f?action=write&offset=0", 500, 1, "pwrite", 0},
        {"/f?action=write&offset=0", 500, 1, "fsync", EIO},
        {"/f?action=write&offset=0", 200, 1, "fsync", EINVAL}, // there is nothing to wait for
        {"/new?action=create", 500, 1, "fsync", EIO},
        {"/f?action=props", 503, 0, "open", EMFILE, true},
        {"/?action=props", 500, 0, "gone", 0, true},
        {"/", 500, 0, "", 0, true},
        {"/f", 500, 0, "", 0, true},
        {"/f?action=unlink", 500, 0},
        {"/x?action=create", 500, 0},
        {"/m?action=mkdir", 500, 0},
    };
    for (const auto& row : rows) {
        syncs = 0;
        failingCall = row.call;
        failing = row.error;
        const rlimit few = {failingCall == "open" ? 0 : descriptors.rlim_cur, descriptors.rlim_max};
        setrlimit(RLIMIT_NOFILE, &few);
        if (failingCall == "gone") {
            std::filesystem::remove_all(tree);
        }
        Request request;
        request.admitted = true;
        request.body = "body";
        EXPECT_EQ(parseTarget(row.text, "/", request.target), 0U) << row.text;
        Reply reply = request.target.action == Action::write ? openUpload(request) : Reply();
        reply = reply.status != 0 ? std::move(reply) : answer(request);
        EXPECT_EQ(reply.status, row.status) << row.call << " " << row.text;
        EXPECT_EQ(syncs, row.syncs) << row.call << " " << row.text;
        EXPECT_EQ(std::holds_alternative<BrokenOff>(reply.body), row.isBrokenOff) << row.call << " " << row.text;
    }
}
