// The load that the comparison puts on a mount. Every command prints the seconds that it took.
//   load mount POINT COMMAND...   starts COMMAND and waits for the first listing of POINT; stays until all have ended
//   load stat DIRECTORY COUNT     load read FILE...              load random FILE COUNT
//   load write FILE MIB           load create DIRECTORY COUNT BYTES
//   load rename DIRECTORY COUNT   load remove DIRECTORY COUNT
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <random>
#include <string>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using Words = std::vector<std::string>;

constexpr std::size_t blockSize = 131072;
constexpr std::size_t pageSize = 4096;
constexpr std::size_t mebibyte = 1048576;

[[noreturn]] void fail(const std::string& what) {
    std::fprintf(stderr, "load: %s: %s\n", what.c_str(), std::strerror(errno));
    std::exit(1);
}

void check(bool good, const std::string& what) {
    if (!good) {
        fail(what);
    }
}

std::size_t number(const std::string& text) {
    return std::strtoull(text.c_str(), nullptr, 10);
}

std::string fileName(const std::string& directory, char kind, std::size_t index) {
    return directory + '/' + kind + std::to_string(index);
}

int openFile(const std::string& path, int flags) {
    constexpr mode_t mode = 0644;
    const int file = open(path.c_str(), flags | O_CLOEXEC, mode);
    check(file >= 0, path);
    return file;
}

Words list(const std::string& directory) {
    Words names;
    DIR* stream = opendir(directory.c_str());
    check(stream != nullptr, directory);
    while (const dirent* entry = readdir(stream)) {
        if (entry->d_name[0] != '.') {
            names.push_back(directory + '/' + entry->d_name);
        }
    }
    closedir(stream);
    return names;
}

void statFiles(const Words& words) {
    const Words names = list(words[0]);
    check(!names.empty(), words[0] + " is empty");
    struct stat st;
    for (std::size_t i = 0; i < number(words[1]); ++i) {
        const std::string& name = names[i % names.size()];
        check(stat(name.c_str(), &st) == 0, name);
    }
}

void readWhole(const std::string& path) {
    std::vector<char> buffer(blockSize);
    const int file = openFile(path, O_RDONLY);
    ssize_t count = 0;
    do {
        count = read(file, buffer.data(), buffer.size());
        check(count >= 0, path);
    } while (count > 0);
    close(file);
}

void readFiles(const Words& words) {
    std::vector<std::thread> readers;
    for (const std::string& path : words) {
        readers.emplace_back(readWhole, path);
    }
    for (std::thread& reader : readers) {
        reader.join();
    }
}

// The same places in every run.
void readRandomly(const Words& words) {
    char page[pageSize];
    const int file = openFile(words[0], O_RDONLY);
    struct stat st;
    check(fstat(file, &st) == 0, words[0]);
    std::minstd_rand places(1);
    for (std::size_t i = 0; i < number(words[1]); ++i) {
        const auto offset = static_cast<off_t>(places() % (st.st_size / pageSize) * pageSize);
        check(pread(file, page, sizeof page, offset) == static_cast<ssize_t>(sizeof page), words[0]);
    }
    close(file);
}

void writeWhole(const std::string& path, std::size_t size) {
    const std::vector<char> buffer(std::min(size, blockSize), 'w');
    const int file = openFile(path, O_WRONLY | O_CREAT | O_TRUNC);
    for (std::size_t rest = size; rest > 0; rest -= std::min(rest, buffer.size())) {
        const std::size_t length = std::min(rest, buffer.size());
        check(write(file, buffer.data(), length) == static_cast<ssize_t>(length), path);
    }
    check(close(file) == 0, path);
}

void writeFile(const Words& words) {
    writeWhole(words[0], number(words[1]) * mebibyte);
}

void createFiles(const Words& words) {
    for (std::size_t i = 0; i < number(words[1]); ++i) {
        writeWhole(fileName(words[0], 'f', i), number(words[2]));
    }
}

void renameFiles(const Words& words) {
    for (std::size_t i = 0; i < number(words[1]); ++i) {
        const std::string from = fileName(words[0], 'f', i);
        check(rename(from.c_str(), fileName(words[0], 'r', i).c_str()) == 0, from);
    }
}

void removeFiles(const Words& words) {
    for (std::size_t i = 0; i < number(words[1]); ++i) {
        const std::string path = fileName(words[0], 'r', i);
        check(unlink(path.c_str()) == 0, path);
    }
}

// Programs that go to the background stay below this process, so that whoever started it can find them.
void startMount(const Words& words) {
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    struct stat before;
    check(stat(words[0].c_str(), &before) == 0, words[0]);
    std::vector<char*> command;
    for (std::size_t i = 1; i < words.size(); ++i) {
        command.push_back(const_cast<char*>(words[i].c_str()));
    }
    command.push_back(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        dup2(STDERR_FILENO, STDOUT_FILENO);
        execvp(command[0], command.data());
        fail(words[1]);
    }
    struct stat now = before;
    while (stat(words[0].c_str(), &now) != 0 || now.st_dev == before.st_dev) {
        constexpr useconds_t pause = 100;
        int status = 0;
        check(waitpid(child, &status, WNOHANG) != child || status == 0, words[1] + " has ended");
        usleep(pause);
    }
    list(words[0]);
}

struct Command {
    const char* name;
    void (*run)(const Words& words);
    std::size_t words;
};

constexpr Command commands[] = {
    {"mount", startMount, 2}, {"stat", statFiles, 2},     {"read", readFiles, 1},     {"random", readRandomly, 2},
    {"write", writeFile, 2},  {"create", createFiles, 3}, {"rename", renameFiles, 2}, {"remove", removeFiles, 2},
};

} // namespace

int main(int argc, char* argv[]) {
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    const Words words(argv + std::min(argc, 2), argv + argc);
    for (const Command& command : commands) {
        if (argc < 2 || std::strcmp(argv[1], command.name) != 0 || words.size() < command.words) {
            continue;
        }
        const auto start = std::chrono::steady_clock::now();
        command.run(words);
        const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
        std::printf("%.6f\n", seconds.count());
        std::fflush(stdout);
        while (wait(nullptr) > 0 || errno == EINTR) {
        }
        return 0;
    }
    std::fputs("load: no such command; see the head of load.cpp\n", stderr);
    return 1;
}
