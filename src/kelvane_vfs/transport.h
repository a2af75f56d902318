// Requests over HTTP: one libcurl handle for each thread; reply bodies are collected in memory. A transfer that fails
// ends the process; a call that returns has reached the service.
#pragma once

#include <cstddef>
#include <cstdint>
#include <curl/curl.h>
#include <pthread.h>

// The largest amount of file data in one request, in bytes: the most that the kernel reads or writes at once.
constexpr std::int32_t partSize = 131072;

// Key of each thread's libcurl handle; null on a thread before its first request.
extern pthread_key_t lubcurlKey;

// A reply body while it is being received: `size` bytes and a terminating NUL at `bytes`, on the heap.
struct ReplyBuffer {
    char* bytes;
    std::size_t size;
};

// A request body while it is being sent: `length` bytes at `data` (not owned), `position` of them sent.
struct UploadSource {
    const char* data;
    std::size_t length;
    std::size_t position;
};

// Called before the first request; returns the result of creating `lubcurlKey`.
int initLibCurl();

// Called after the last request; returns the result of deleting `lubcurlKey`. Handles of threads that still live are
// left to the end of the process.
int cleanupLibCurl();

// The calling thread's handle, made at its first request; null when libcurl cannot make one.
CURL* getCurlHandle();

// Releases the handle of a thread that ends.
void cleanupCurlHandle(void* handle);

// libcurl's write callback: appends to the ReplyBuffer `user`; ends the process (status 0) without memory.
std::size_t WriteMemoryCallback(const void* contents, std::size_t size, std::size_t nmemb, void* user);

// libcurl's read callback: takes the next bytes of the UploadSource `user`; 0 at its end.
std::size_t ReadMemoryCallback(void* destination, std::size_t size, std::size_t nmemb, void* user);

// The time from the start of the thread's last request on its connection to the first byte of its reply, in seconds.
double lastReplySeconds();

// libcurl's seek callback: goes on at `offset` from the start of the UploadSource `user`. libcurl repeats a request
// after the server closed the kept connection at that moment.
int SeekMemoryCallback(void* user, curl_off_t offset, int origin);

// `path` as it stands in a URL, in the service's spelling and percent-encoded; a heap string that the caller frees.
char* encodedServicePath(const char* path);

// GET of the base URL, the encoded service spelling of `path` and, if not null, "?" and `query`. `headers` is
// null or extra header lines separated by "\n", which are cut apart in place. `received` (body bytes) and
// `status` (HTTP) may be null. Returns the body, terminated by a NUL; the caller frees it. Its name is not mangled, so
// that a test can take its place when it is linked.
extern "C" char* getURL(const char* path, const char* query, std::size_t* received, char* headers, long* status);

// PUT of `length` bytes at `data` to the same kind of URL. The order of the results differs: `status` comes first.
char* postURL(const char* path, const char* query, const void* data, std::size_t length, long* status,
              std::size_t* received);
