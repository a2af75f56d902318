// Plain calls of the server's answers: what is synced, and what a failing disk becomes. The linker puts functions of
// this file in the place of the system's.
#include "storage/answer.h"
#include "storage/tree.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>

namespace {

int syncs = 0;
int failing = 0;                  // an error number, which `failingCall` meets
const char* failingCall = "none"; // or 0 for "wrote nothing"

bool fails(const char* call) {
    errno = failing;
    return std::strcmp(call, failingCall) == 0;
}

} // namespace

extern "C" {
int __wrap_fsync(int) {
    return ++syncs, fails("fsync") ? -1 : 0;
}
int __wrap_fdatasync(int) {
    return ++syncs, fails("fsync") ? -1 : 0;
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

Reply ask(const char* text) {
    Request request;
    request.admitted = true;
    EXPECT_EQ(parseTarget(text, "/", request.target), 0U) << text;
    request.body = "body";
    Reply reply = request.target.action == Action::write ? openUpload(request) : Reply();
    return reply.status != 0 ? std::move(reply) : answer(request);
}

struct AnswerTest : testing::Test {
    std::string tree = testing::TempDir() + "answers-" + std::to_string(getpid());
    void SetUp() override {
        std::filesystem::create_directories(tree + "/d");
        std::ofstream(tree + "/f") << "content";
        std::ofstream(tree + "/bad") << "";
        syncs = 0;
        failingCall = "none";
        ASSERT_EQ(openTree(tree.c_str(), true), 0);
    }
    void TearDown() override {
        std::filesystem::remove_all(tree);
    }
};

// A file and every directory whose entries have changed.
TEST_F(AnswerTest, Syncs) {
    const struct {
        const char* text;
        unsigned status;
        int syncs;
    } rows[] = {
        {"/new?action=create", 204, 2},
        {"/new?action=write&offset=0", 200, 1},
        {"/new", 200, 0},
        {"/new?action=truncate&offset=9", 204, 1},
        {"/m?action=mkdir", 200, 1},
        {"/?action=props", 200, 0},
        {"/new?action=rename&to=d%2Fx", 200, 2},
        {"/d/x?action=unlink", 204, 1},
        {"/m?action=rmdir", 204, 1},
        {"/m?action=rmdir", 404, 0},
    };
    for (const auto& row : rows) {
        syncs = 0;
        EXPECT_EQ(ask(row.text).status, row.status) << row.text;
        EXPECT_EQ(syncs, row.syncs) << row.text;
    }
}

TEST_F(AnswerTest, FailingDisk) {
    const struct {
        const char* call;
        int error;
        const char* text;
        unsigned status;
        bool isBrokenOff;
    } rows[] = {
        {"bad", EIO, "/", 500, true},
        {"bad", ENOTCONN, "/", 500, true},
        {"bad", ENOENT, "/", 200, false},
        {"pread", EIO, "/f", 500, true},
        {"pwrite", EPERM, "/f?action=write&offset=0", 500, false}, // of a mount that was cut off
        {"pwrite", ENOSPC, "/f?action=write&offset=0", 507, false},
        {"pwrite", 0, "/f?action=write&offset=0", 500, false},
        {"fsync", EIO, "/f?action=write&offset=0", 500, false},
        {"fsync", EINVAL, "/f?action=write&offset=0", 200, false}, // there is nothing to wait for
        {"fsync", EIO, "/new?action=create", 500, false},
    };
    for (const auto& row : rows) {
        failingCall = row.call;
        failing = row.error;
        const Reply reply = ask(row.text);
        EXPECT_EQ(reply.status, row.status) << row.call << " " << row.text;
        EXPECT_EQ(std::holds_alternative<BrokenOff>(reply.body), row.isBrokenOff) << row.call << " " << row.text;
    }
    failingCall = "none";
    std::filesystem::remove_all(tree);
    for (const char* text :
         {"/?action=props", "/", "/f", "/f?action=unlink", "/new?action=create", "/m?action=mkdir"}) {
        EXPECT_EQ(ask(text).status, 500U) << text;
    }
}

} // namespace
