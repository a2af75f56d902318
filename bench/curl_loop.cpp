// Plain libcurl transfers on one handle: the limit for whatever is built on it. Performs the requests that standard
// input lists, "GET URL [RANGE]" or "PUT URL LENGTH" each, and prints the seconds that they took.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <curl/curl.h>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

namespace {

struct Request {
    std::string url;
    std::string range; // header line, empty for none
    bool upload = false;
    std::size_t length = 0; // of the upload
};

constexpr std::size_t blockSize = 131072;

// Replies are copied somewhere, as any use of them does.
struct Sink {
    std::vector<char> bytes = std::vector<char>(blockSize);
    std::size_t size = 0;
};

std::size_t takeBytes(const char* contents, std::size_t size, std::size_t count, void* user) {
    auto* sink = static_cast<Sink*>(user);
    const std::size_t length = size * count;
    if (sink->size + length > sink->bytes.size()) {
        sink->bytes.resize(sink->size + length);
    }
    std::memcpy(sink->bytes.data() + sink->size, contents, length);
    sink->size += length;
    return length;
}

std::size_t giveBytes(char* destination, std::size_t size, std::size_t count, void* user) {
    static const std::vector<char> source(blockSize, 'w');
    auto* rest = static_cast<std::size_t*>(user);
    const std::size_t length = std::min({size * count, *rest, source.size()});
    std::memcpy(destination, source.data(), length);
    *rest -= length;
    return length;
}

std::vector<Request> readRequests() {
    std::vector<Request> requests;
    std::string line;
    while (std::getline(std::cin, line)) {
        std::istringstream words(line);
        Request request;
        std::string method;
        words >> method >> request.url;
        request.upload = method == "PUT";
        if (request.upload) {
            words >> request.length;
        } else if (std::string range; words >> range) {
            request.range = "Range: bytes=" + range;
        }
        requests.push_back(request);
    }
    return requests;
}

void perform(CURL* handle, const Request& request, Sink& sink) {
    std::size_t rest = request.length;
    const char* header = request.upload ? "Content-Type: application/octetstream" : request.range.c_str();
    curl_slist* headers = *header != '\0' ? curl_slist_append(nullptr, header) : nullptr;
    sink.size = 0;
    curl_easy_setopt(handle, CURLOPT_URL, request.url.c_str());
    curl_easy_setopt(handle, CURLOPT_UPLOAD, request.upload ? 1L : 0L);
    curl_easy_setopt(handle, CURLOPT_INFILESIZE, request.upload ? static_cast<long>(request.length) : -1L);
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(handle, CURLOPT_READFUNCTION, giveBytes);
    curl_easy_setopt(handle, CURLOPT_READDATA, &rest);
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, takeBytes);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &sink);
    const CURLcode result = curl_easy_perform(handle);
    curl_slist_free_all(headers);
    if (result != CURLE_OK) {
        std::fprintf(stderr, "curl_loop: %s: %s\n", request.url.c_str(), curl_easy_strerror(result));
        std::exit(1);
    }
}

} // namespace

int main() {
    const std::vector<Request> requests = readRequests();
    curl_global_init(CURL_GLOBAL_ALL);
    CURL* handle = curl_easy_init();
    Sink sink;
    const auto start = std::chrono::steady_clock::now();
    for (const Request& request : requests) {
        perform(handle, request, sink);
    }
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
    long status = 0;
    curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status);
    curl_easy_cleanup(handle);
    std::printf("%.6f %ld\n", seconds.count(), status);
    return 0;
}
