// A cache filled from a scripted service, with the daemon's code inside the test's process.
#pragma once

#include "cache/dir_entry.h"
#include "cache/life.h"
#include "cache/volume_statistics.h"
#include "kelvane_vfs/checked_text.h"
#include "kelvane_vfs/process.h"
#include "kelvane_vfs/transport.h"
#include "tests/scripted_service.h"

#include <cstdlib>
#include <gtest/gtest.h>

using Requests = std::vector<std::string>;

constexpr unsigned directoryMode = 040755;

struct CacheTest : testing::Test {
    ScriptedService service;

    void SetUp() override {
        [[maybe_unused]] static const int initialised = initLibCurl();
        finderInformed = 1;
        startScript(service);
        checkedFormat(baseURL, sizeof baseURL, "http://127.0.0.1:%u/", service.port);
        setReply(service, "GET /?action=props", httpReply(200, attributesJson(4096, directoryMode)));
        DirInit();
        takeRequests(service);
    }

    void TearDown() override {
        DirDestroy();
        closeConnection();
        stopScript(service);
    }

    // A death test's child connects anew: it must not share a connection whose other end it holds as well.
    static void closeConnection() {
        cleanupCurlHandle(pthread_getspecific(lubcurlKey));
        pthread_setspecific(lubcurlKey, nullptr);
    }

    // Scripts a listing of the encoded path ("" is the root).
    void list(const std::string& encoded, const std::vector<std::string>& elements) {
        setReply(service, "GET /" + encoded, httpReply(200, listingJson(elements)));
    }

    void script(const std::string& request, int status, const std::string& body = "") { setReply(service, request, httpReply(status, body)); }

    void expectRequests(const Requests& expected) { EXPECT_EQ(takeRequests(service), expected); }
};

// Runs `call` with both outputs captured, one behind the other: standard output, then standard error.
template <typename Call> std::string outputOf(Call call) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    call();
    std::fflush(stdout);
    const std::string out = testing::internal::GetCapturedStdout();
    return out + testing::internal::GetCapturedStderr();
}
