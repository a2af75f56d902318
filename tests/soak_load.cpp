// The load of scripts/soak: soak_load MOUNT SERVED SECONDS LIMIT. Workers list, stat, read, write, append, create, rename,
// remove and ask for the volume at once, in folders of their own and in a shared one, with names in every spelling. What a
// worker wrote last has to be what it reads and, at the end, what the server holds; a call over LIMIT seconds is a failure.
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <map>
#include <random>
#include <string>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int workers = 8;
const char* const spellings[][2] = {{"plain", "plain"}, {"caf\xc3\xa9", "cafe\xcc\x81"}, {"\xc3\x85ngstr\xc3\xb6m", "A\xcc\x8angstro\xcc\x88m"},
        {"\xea\xb0\x81", "\xe1\x84\x80\xe1\x85\xa1\xe1\x86\xa8"}, {"fi", "\xef\xac\x81"}};

struct Worker {
    std::string own, shared, served; // folders: on the mount twice, on the server's side
    std::mt19937 random;
    std::map<int, std::string> contents; // of the own files, by number
    double limit = 0, slowest = 0;
    long calls = 0, faults = 0;
};

void fault(Worker& worker, const std::string& what) {
    ++worker.faults;
    std::fprintf(stderr, "soak_load %d: %s: %s\n", getpid(), what.c_str(), std::strerror(errno));
}

// Runs one call and notes how long it took; a result other than the expected one is a fault.
template <typename Call, typename Result> void must(Worker& worker, const std::string& name, Result expected, Call call) {
    const auto begin = std::chrono::steady_clock::now();
    const bool asExpected = call() == expected;
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    ++worker.calls;
    worker.slowest = std::max(worker.slowest, seconds);
    if (!asExpected || seconds > worker.limit) {
        fault(worker, name + (asExpected ? ": too slow" : ""));
    }
}

// The name of file number `number`, in one of its two spellings.
std::string nameOf(Worker& worker, int number, int kinds = 4) {
    return "/" + std::string(spellings[number % kinds][worker.random() % 2]) + std::to_string(number);
}

bool readWhole(const std::string& name, std::string& text) {
    const int file = open(name.c_str(), O_RDONLY);
    char area[65536];
    ssize_t count = 0;
    for (text.clear(); file >= 0 && (count = read(file, area, sizeof area)) > 0;) { text.append(area, count); }
    close(file);
    return file >= 0 && count == 0;
}

bool writeAt(const std::string& name, int flags, const std::string& text) {
    const int file = open(name.c_str(), O_WRONLY | flags, 0644);
    const bool whole = file >= 0 && write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    return (file < 0 || close(file) == 0) && whole;
}

long listFolder(const std::string& name) {
    DIR* folder = opendir(name.c_str());
    long entries = 0;
    while (folder != nullptr && readdir(folder) != nullptr) { ++entries; }
    return folder != nullptr ? closedir(folder) + entries : -1;
}

// One step in the own folder, where everything has to succeed.
void ownStep(Worker& worker) {
    const int number = static_cast<int>(worker.random() % 12);
    const int target = (number + 1) % 12;
    const std::string name = worker.own + nameOf(worker, number);
    const bool exists = worker.contents.contains(number);
    std::string text(worker.random() % 4 == 0 ? worker.random() % 400000 : worker.random() % 5000, static_cast<char>('a' + worker.random() % 26));
    struct stat st = {};
    struct statvfs volume = {};
    switch (exists ? worker.random() % 8 : worker.random() % 4) {
    case 0:
        must(worker, "write " + name, true, [&] { return writeAt(name, O_CREAT | O_TRUNC, text); });
        worker.contents[number] = text;
        break;
    case 1:
        must(worker, "list " + worker.own, static_cast<long>(worker.contents.size()), [&] { return listFolder(worker.own); });
        break;
    case 2:
        must(worker, "statvfs", 0, [&] { return statvfs(worker.own.c_str(), &volume); });
        break;
    case 3:
        must(worker, "unlink " + name, exists, [&] { return unlink(name.c_str()) == 0; });
        worker.contents.erase(number);
        break;
    case 4:
        must(worker, "append " + name, true, [&] { return writeAt(name, O_APPEND, text); });
        worker.contents[number] += text;
        break;
    case 5:
        must(worker, "read " + name, true, [&] { return readWhole(name, text) && text == worker.contents[number]; });
        break;
    case 6:
        must(worker, "stat " + name, static_cast<off_t>(worker.contents[number].size()), [&] { return stat(name.c_str(), &st) == 0 ? st.st_size : -1; });
        break;
    default:
        must(worker, "rename " + name, 0, [&] { return rename(name.c_str(), (worker.own + nameOf(worker, target)).c_str()); });
        worker.contents[target] = worker.contents.extract(number).mapped();
    }
}

// One step in the shared folder: others change the same names, so only time is judged.
void sharedStep(Worker& worker) {
    const std::string name = worker.shared + nameOf(worker, static_cast<int>(worker.random() % 6), 5);
    // A rename of a name onto itself may deadlock inside the FUSE library when the file vanishes meanwhile (see README).
    std::string other = name;
    while (other == name) { other = worker.shared + nameOf(worker, static_cast<int>(worker.random() % 6), 5); }
    std::string text = "shared";
    must(worker, "shared " + name, true, [&] {
        switch (worker.random() % 6) {
        case 0:
            return writeAt(name, O_CREAT, text) || true;
        case 1:
            return readWhole(name, text) || true;
        case 2:
            return rename(name.c_str(), other.c_str()) <= 0;
        case 3:
            return unlink(name.c_str()) <= 0;
        case 4:
            return mkdir((name + "-dir").c_str(), 0755) + rmdir((other + "-dir").c_str()) <= 0;
        default:
            return listFolder(worker.shared) >= -1;
        }
    });
}

// What the server holds of this worker's files, in whichever spelling, against what the worker wrote last.
void compareWithServer(Worker& worker) {
    for (const auto& [number, content] : worker.contents) {
        std::string text;
        const std::string end = std::to_string(number);
        if ((!readWhole(worker.served + "/" + spellings[number % 4][0] + end, text) &&
                    !readWhole(worker.served + "/" + spellings[number % 4][1] + end, text)) ||
                text != content) {
            fault(worker, "the server has something else in file " + end);
        }
    }
    if (listFolder(worker.served) - 2 != static_cast<long>(worker.contents.size())) {
        fault(worker, "the server has another number of files");
    }
}

int work(const std::string& mount, const std::string& served, double seconds, double limit, int number, int results) {
    Worker worker;
    worker.random.seed(number);
    const std::string folder = "/worker" + std::to_string(number);
    worker.own = mount + folder;
    worker.shared = mount + "/shared";
    worker.served = served + folder;
    worker.limit = limit;
    if (mkdir(worker.own.c_str(), 0755) != 0) {
        fault(worker, "mkdir " + worker.own);
    }
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (std::chrono::steady_clock::now() < end && worker.faults < 10) { worker.random() % 3 == 0 ? sharedStep(worker) : ownStep(worker); }
    compareWithServer(worker);
    dprintf(results, "%ld %f\n", worker.calls, worker.slowest);
    return worker.faults == 0 ? 0 : 1;
}

} // namespace

int main(int argc, char* argv[]) {
    if (argc != 5) {
        return 2;
    }
    const std::string mount = argv[1];
    mkdir((mount + "/shared").c_str(), 0755);
    int results[2];
    if (pipe(results) != 0) {
        return 2;
    }
    for (int number = 0; number < workers; ++number) {
        if (fork() == 0) {
            return work(mount, argv[2], std::strtod(argv[3], nullptr), std::strtod(argv[4], nullptr), number, results[1]);
        }
    }
    close(results[1]);
    int failed = 0;
    for (int status = 0; wait(&status) > 0;) { failed += status != 0 ? 1 : 0; }
    std::FILE* lines = fdopen(results[0], "r");
    long all = 0, calls = 0;
    double slowest = 0, seconds = 0;
    while (std::fscanf(lines, "%ld %lf", &calls, &seconds) == 2) {
        all += calls;
        slowest = std::max(slowest, seconds);
    }
    std::printf("%d workers, %ld calls, slowest %.3f s, %d worker(s) failed\n", workers, all, slowest, failed);
    return failed == 0 ? 0 : 1;
}
