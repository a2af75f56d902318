#include "kelvane_vfs/transport.h"

#include "cache/path_lookup.h"
#include "kelvane_vfs/leak_on_purpose.h"
#include "kelvane_vfs/not_null.h"
#include "kelvane_vfs/process.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <event2/buffer.h>
#include <event2/http.h>

pthread_key_t lubcurlKey;

namespace {

constexpr std::size_t errorTextSize = 1024;
static_assert(errorTextSize >= CURL_ERROR_SIZE);

// Holds a largest read or write, with its headers, in one piece.
constexpr long transferBufferSize = partSize + 16L * 1024;

// A write may send "Expect: 100-continue", but does not wait a round trip for the answer. In milliseconds.
constexpr long longestExpectWait = 1;

// libcurl over OpenSSL parses the bundle of all authorities for each new connection. Where it also knows a directory
// that has them under their hashes, OpenSSL reads only the one it needs.
bool knowsAuthorityDirectory() {
    const curl_version_info_data* libcurl = curl_version_info(CURLVERSION_NOW);
    return libcurl->capath != nullptr && libcurl->ssl_version != nullptr &&
           std::strncmp(libcurl->ssl_version, "OpenSSL/", std::strlen("OpenSSL/")) == 0;
}

// The server's authority was found in the bundle only.
std::atomic<bool> needsBundle{false};

// The server closed a kept connection just when the request came. libcurl repeats such requests itself, but not when it
// notices while it sends the body, and every sixth time of a handle it gives up.
bool isClosedUnderRequest(CURL* handle, CURLcode result) {
    long newConnections = 0;
    long replied = 0;
    curl_easy_getinfo(handle, CURLINFO_NUM_CONNECTS, &newConnections);
    curl_easy_getinfo(handle, CURLINFO_HEADER_SIZE, &replied);
    const bool isBroken = result == CURLE_SEND_ERROR || result == CURLE_RECV_ERROR || result == CURLE_HTTP2;
    return isBroken && newConnections == 0 && replied == 0;
}

// Performs the handle's request, whose body is `source`. What the directory does not verify, and nothing but the
// handshake has happened then, the bundle may: an administrator may have replaced only the bundle, or may be renewing
// the directory.
CURLcode perform(CURL* handle, UploadSource& source) {
    CURLcode result = curl_easy_perform(handle);
    if (isClosedUnderRequest(handle, result)) {
        source.position = 0;
        result = curl_easy_perform(handle);
    }
    if (result == CURLE_PEER_FAILED_VERIFICATION && knowsAuthorityDirectory()) {
        curl_easy_setopt(handle, CURLOPT_CAINFO, curl_version_info(CURLVERSION_NOW)->cainfo);
        source.position = 0;
        result = curl_easy_perform(handle);
        needsBundle = needsBundle || result == CURLE_OK;
    }
    return result;
}

// The URL of a request, on the heap: nothing stands between the base URL and the encoded path.
char* buildURL(const char* path, const char* query) {
    char* encoded = encodedServicePath(path);
    const std::size_t baseLength = std::strlen(baseURL);
    const std::size_t encodedLength = std::strlen(encoded);
    const std::size_t queryLength = query != nullptr ? std::strlen(query) + 1 : 0;
    auto* url = notNull(static_cast<char*>(std::malloc(baseLength + encodedLength + queryLength + 1)));
    char* end = std::copy_n(baseURL, baseLength, url);
    end = std::copy_n(encoded, encodedLength, end);
    std::free(encoded);
    if (query != nullptr) {
        *end++ = '?';
        end = std::copy_n(query, queryLength - 1, end);
    }
    *end = '\0';
    return url;
}

// The list stays allocated when the request is over: one small list for each ranged read.
curl_slist* buildHeaderList(char* headers) {
    curl_slist* list = nullptr;
    char* rest = nullptr;
    for (char* line = strtok_r(headers, "\n", &rest); line != nullptr; line = strtok_r(nullptr, "\n", &rest)) {
        list = notNull(curl_slist_append(list, line));
    }
    leakOnPurpose(list);
    return list;
}

// An empty body: one byte, its terminator.
ReplyBuffer startReply() {
    return {notNull(static_cast<char*>(std::calloc(1, 1))), 0};
}

} // namespace

int initLibCurl() {
    curl_global_init(CURL_GLOBAL_ALL);
    return pthread_key_create(&lubcurlKey, cleanupCurlHandle);
}

int cleanupLibCurl() {
    return pthread_key_delete(lubcurlKey);
}

CURL* getCurlHandle() {
    CURL* handle = pthread_getspecific(lubcurlKey);
    if (handle == nullptr) {
        handle = curl_easy_init();
        curl_easy_setopt(handle, CURLOPT_BUFFERSIZE, transferBufferSize);
        curl_easy_setopt(handle, CURLOPT_UPLOAD_BUFFERSIZE, transferBufferSize);
        curl_easy_setopt(handle, CURLOPT_EXPECT_100_TIMEOUT_MS, longestExpectWait);
        if (knowsAuthorityDirectory() && !needsBundle) {
            curl_easy_setopt(handle, CURLOPT_CAINFO, nullptr);
        }
        pthread_setspecific(lubcurlKey, handle);
    }
    return handle;
}

void cleanupCurlHandle(void* handle) {
    curl_easy_cleanup(handle);
}

std::size_t WriteMemoryCallback(const void* contents, std::size_t size, std::size_t nmemb, void* user) {
    auto* reply = static_cast<ReplyBuffer*>(user);
    const std::size_t count = size * nmemb;
    auto* bytes = static_cast<char*>(std::realloc(reply->bytes, reply->size + count + 1));
    if (bytes == nullptr) {
        std::puts("not enough memory (realloc returned NULL)");
        endProcess(0);
    }
    reply->bytes = bytes;
    std::memcpy(bytes + reply->size, contents, count);
    reply->size += count;
    bytes[reply->size] = '\0';
    return count;
}

std::size_t ReadMemoryCallback(void* destination, std::size_t size, std::size_t nmemb, void* user) {
    auto* source = static_cast<UploadSource*>(user);
    const std::size_t count = std::min(size * nmemb, source->length - source->position);
    if (count == 0) {
        return 0;
    }
    std::memcpy(destination, source->data + source->position, count);
    source->position += count;
    return count;
}

double lastReplySeconds() {
    CURL* handle = getCurlHandle();
    double sent = 0;
    double answered = 0;
    curl_easy_getinfo(handle, CURLINFO_PRETRANSFER_TIME, &sent);
    curl_easy_getinfo(handle, CURLINFO_STARTTRANSFER_TIME, &answered);
    return answered - sent;
}

int SeekMemoryCallback(void* user, curl_off_t offset, int) {
    static_cast<UploadSource*>(user)->position = static_cast<std::size_t>(offset);
    return CURL_SEEKFUNC_OK;
}

char* encodedServicePath(const char* path) {
    char* servicePath = DirReadOriginalEncodingPath(path);
    char* encoded = notNull(evhttp_encode_uri(servicePath));
    std::free(servicePath);
    return encoded;
}

char* getURL(const char* path, const char* query, std::size_t* received, char* headers, long* status) {
    std::fprintf(stderr, "getURL: path: %s, query: %s\n", path, query != nullptr ? query : "(null)");
    ReplyBuffer reply = startReply();
    CURL* handle = getCurlHandle();
    char* url = buildURL(*path == '/' ? path + 1 : path, query);
    std::fprintf(stderr, "getURL: url: %s\n", url);

    curl_easy_setopt(handle, CURLOPT_URL, url);
    curl_easy_setopt(handle, CURLOPT_UPLOAD, 0L);
    curl_easy_setopt(handle, CURLOPT_READFUNCTION, nullptr);
    curl_easy_setopt(handle, CURLOPT_READDATA, nullptr);
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers != nullptr ? buildHeaderList(headers) : nullptr);
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, WriteMemoryCallback);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &reply);

    UploadSource nothing = {};
    const CURLcode result = perform(handle, nothing);
    if (result != CURLE_OK) {
        std::printf("CURL error: %s\n", curl_easy_strerror(result));
        endProcess(1);
    }
    if (status != nullptr) {
        curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, status);
    }
    std::free(url);
    std::printf("getURL: %lu bytes retrieved\n", static_cast<unsigned long>(reply.size));
    if (received != nullptr) {
        *received = reply.size;
    }
    return reply.bytes;
}

char* postURL(const char* path, const char* query, const void* data, std::size_t length, long* status,
              std::size_t* received) {
    UploadSource source = {static_cast<const char*>(data), length, 0};
    ReplyBuffer reply = startReply();
    char errorText[errorTextSize] = "";
    CURL* handle = getCurlHandle();
    char* url = buildURL(path, query);
    curl_slist* headers = notNull(curl_slist_append(nullptr, "Content-Type: application/octetstream"));

    curl_easy_setopt(handle, CURLOPT_URL, url);
    curl_easy_setopt(handle, CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(handle, CURLOPT_INFILESIZE, static_cast<long>(length));
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(handle, CURLOPT_READFUNCTION, ReadMemoryCallback);
    curl_easy_setopt(handle, CURLOPT_READDATA, &source);
    curl_easy_setopt(handle, CURLOPT_SEEKFUNCTION, SeekMemoryCallback);
    curl_easy_setopt(handle, CURLOPT_SEEKDATA, &source);
    curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, errorText);
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, WriteMemoryCallback);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &reply);

    const CURLcode result = perform(handle, source);
    // The buffer and the source live only as long as this call, the handle longer.
    curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, nullptr);
    curl_easy_setopt(handle, CURLOPT_SEEKFUNCTION, nullptr);
    if (result != CURLE_OK) {
        std::fprintf(stderr, "UPLOAD failed due to %s\n", errorText);
        endProcess(1);
    }
    if (status != nullptr) {
        curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, status);
    }
    curl_slist_free_all(headers);
    std::free(url);
    // The text is part of the trace, though the number is that of the bytes sent.
    std::printf("%lu bytes retrieved\n", static_cast<unsigned long>(length));
    if (received != nullptr) {
        *received = reply.size;
    }
    return reply.bytes;
}
