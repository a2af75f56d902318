// Measures the inner parts that every request uses, one by one. Run by hand:
//   build/bench/kelvane_micro [--benchmark_filter=REGEX ...]
// The trace goes to /dev/null, as it does with a daemon in the background.
#include "cache/dir_entry.h"
#include "cache/path_lookup.h"
#include "cache/remote_fetch.h"
#include "cache/root.h"
#include "kelvane_vfs/process.h"
#include "kelvane_vfs/transport.h"
#include "storage/json.h"

#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <ext/stdio_filebuf.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <string>
#include <unistd.h>

namespace {

constexpr std::size_t fileSize = 1 << 20;
constexpr int siblings = 1000;
constexpr int deepest = 32;
constexpr int mostEntries = 100000;
constexpr time_t aDay = 86400;

// The reply that a listing gets instead of a request; null to ask the service.
const std::string* listingReply = nullptr;

struct stat attributes(mode_t mode) {
    struct stat st = {};
    st.st_mode = mode;
    st.st_size = fileSize;
    st.st_nlink = 1;
    st.st_mtime = std::time(nullptr);
    return st;
}

DirEntry* addDirectory(DirEntry* parent, const std::string& name) {
    const struct stat st = attributes(S_IFDIR);
    DirEntry* entry = DirEntryAdd(parent, name.c_str(), directoryType, &st);
    entry->fetchTime = std::time(nullptr);
    return entry;
}

// A directory with many names, and a chain of directories: "/a name/a name/...".
void fillCache() {
    const struct stat st = attributes(S_IFREG);
    dirEntryTop->fetchTime = std::time(nullptr) + aDay; // never overdue here
    DirEntry* names = addDirectory(dirEntryTop, "names");
    for (int i = 0; i < siblings; ++i) {
        DirEntryAdd(names, ("IMG_" + std::to_string(i) + ".jpeg").c_str(), fileType, &st);
        DirEntryAdd(names, ("Été à la plage " + std::to_string(i) + ".jpeg").c_str(), fileType, &st);
    }
    DirEntry* parent = dirEntryTop;
    for (int depth = 0; depth < deepest; ++depth) {
        parent = addDirectory(parent, "a name");
    }
}

std::string pathOfDepth(std::int64_t depth) {
    std::string path;
    for (std::int64_t i = 0; i < depth; ++i) {
        path += "/a name";
    }
    return path;
}

std::string listingOf(std::int64_t count) {
    const std::string element(attributeObject(attributes(S_IFREG)).c_str());
    std::string json = R"({"entries":[)";
    for (std::int64_t i = 0; i < count; ++i) {
        json += (i == 0 ? R"({"t":8,)" : R"(,{"t":8,)") + element.substr(1, element.size() - 2) + R"(,"n":"IMG_)" +
                std::to_string(i) + R"(.jpeg"})";
    }
    return json + "]}";
}

void lookUp(benchmark::State& state, const char* name, bool there) {
    const DirEntry* names = DirGetEntry("/names");
    for ([[maybe_unused]] auto _ : state) {
        const DirEntry* found = DirEntryFindChild(names, name);
        if ((found != nullptr) != there) {
            state.SkipWithError("not the expected outcome");
        }
    }
}
BENCHMARK_CAPTURE(lookUp, ascii, "IMG_500.jpeg", true);
BENCHMARK_CAPTURE(lookUp, asciiMissing, "IMG_missing.jpeg", false);
BENCHMARK_CAPTURE(lookUp, composed, "Été à la plage 500.jpeg", true);
BENCHMARK_CAPTURE(lookUp, decomposed, "E\u0301te\u0301 a\u0300 la plage 500.jpeg", true);
BENCHMARK_CAPTURE(lookUp, nonAsciiMissing, "Été à la montagne.jpeg", false);

void walkPath(benchmark::State& state) {
    const std::string path = pathOfDepth(state.range(0));
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(DirGetEntry(path.c_str()));
    }
    state.SetComplexityN(state.range(0));
}
BENCHMARK(walkPath)->RangeMultiplier(2)->Range(1, deepest)->Complexity();

void spellPath(benchmark::State& state) {
    const std::string path = pathOfDepth(state.range(0));
    for ([[maybe_unused]] auto _ : state) {
        std::free(DirReadOriginalEncodingPath(path.c_str()));
    }
    state.SetComplexityN(state.range(0));
}
BENCHMARK(spellPath)->RangeMultiplier(2)->Range(1, deepest)->Complexity();

// A reply turned into the records of a directory.
void takeListing(benchmark::State& state) {
    const std::string json = listingOf(state.range(0));
    const struct stat st = attributes(S_IFDIR);
    listingReply = &json;
    for ([[maybe_unused]] auto _ : state) {
        DirEntry* directory = DirEntryNew("", directoryType, &st);
        if (DirFetchRemoteDir("/", directory) == 0) {
            state.SkipWithError("the listing does not parse");
        }
        state.PauseTiming();
        DirEntryFree(directory);
        state.ResumeTiming();
    }
    listingReply = nullptr;
    state.SetItemsProcessed(state.iterations() * state.range(0));
    state.SetComplexityN(state.range(0));
}
BENCHMARK(takeListing)->RangeMultiplier(10)->Range(10, mostEntries)->Complexity(benchmark::oN);

void requestAttributes(benchmark::State& state) {
    for ([[maybe_unused]] auto _ : state) {
        std::free(getURL("/file", "action=props", nullptr, nullptr, nullptr));
    }
}
BENCHMARK(requestAttributes)->UseRealTime();

void requestRange(benchmark::State& state) {
    const std::string range = "Range: bytes=0-" + std::to_string(state.range(0) - 1);
    for ([[maybe_unused]] auto _ : state) {
        std::string header = range; // getURL changes it
        std::size_t received = 0;
        std::free(getURL("/file", nullptr, &received, header.data(), nullptr));
        if (received != static_cast<std::size_t>(state.range(0))) {
            state.SkipWithError("not the range that was asked for");
        }
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(requestRange)->Arg(4096)->Arg(131072)->Arg(fileSize)->UseRealTime();

} // namespace

// Linked with --wrap.
extern "C" char* __real_getURL(const char*, const char*, std::size_t*, char*, long*);
extern "C" char* __wrap_getURL(const char* path, const char* query, std::size_t* received, char* headers,
                               long* status) {
    return listingReply == nullptr ? __real_getURL(path, query, received, headers, status)
                                   : strdup(listingReply->c_str());
}

int main(int argc, char* argv[]) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    __gnu_cxx::stdio_filebuf<char> results(dup(STDOUT_FILENO), std::ios::out);
    std::ostream terminal(&results);
    const int devNull = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(devNull, STDOUT_FILENO);
    dup2(devNull, STDERR_FILENO);
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);

    char directory[] = "/tmp/kelvane-micro-XXXXXX";
    if (mkdtemp(directory) == nullptr) {
        return 1;
    }
    std::ofstream(std::string(directory) + "/file") << std::string(fileSize, 'x');
    const std::string program = std::filesystem::canonical("/proc/self/exe").replace_filename("kelvane_storage");
    FILE* service = popen(("exec setpriv --pdeathsig TERM '" + program + "' " + directory).c_str(), "r");
    if (service == nullptr || std::fgets(baseURL, sizeof baseURL, service) == nullptr) {
        return 1;
    }
    baseURL[std::strcspn(baseURL, "\n")] = '\0';
    forgetEnvironment();
    initLibCurl();
    DirInit();
    fillCache();

    benchmark::ConsoleReporter reporter(benchmark::ConsoleReporter::OO_Tabular);
    reporter.SetOutputStream(&terminal);
    reporter.SetErrorStream(&terminal);
    benchmark::RunSpecifiedBenchmarks(&reporter);

    DirDestroy();
    cleanupCurlHandle(getCurlHandle());
    std::filesystem::remove_all(directory);
    return 0;
}
