#include "tests/processes.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

std::mutex watchLock;
std::vector<pid_t> watched;
std::chrono::steady_clock::time_point deadline = std::chrono::steady_clock::time_point::max();

void watch() {
    for (;;) {
        sleepMilliseconds(100);
        const std::lock_guard<std::mutex> guard(watchLock);
        if (std::chrono::steady_clock::now() > deadline) {
            deadline = std::chrono::steady_clock::time_point::max();
            std::fputs("watchdog: this takes too long, killing the daemons\n", stderr);
            for (const pid_t process : watched) { kill(process, SIGKILL); }
        }
    }
}

std::vector<std::string> mountsBelow(const std::string& directory) {
    std::vector<std::string> found;
    std::ifstream mounts("/proc/self/mounts");
    for (std::string line; std::getline(mounts, line);) {
        // Names may hold escaped blanks before the mount point, but no plain ones.
        std::istringstream fields(line);
        std::string source;
        std::string point;
        fields >> source >> point;
        if (point == directory || point.starts_with(directory + "/")) {
            found.push_back(point);
        }
    }
    return found;
}

} // namespace

std::string makeScratch() {
    const char* root = std::getenv("KELVANE_TEST_ROOT");
    std::string name = (root != nullptr ? root : std::filesystem::temp_directory_path().string()) + "/kelvane-XXXXXX";
    return mkdtemp(name.data()) != nullptr ? name : "";
}

void removeScratch(const std::string& directory) {
    for (const std::string& point : mountsBelow(directory)) { runShell("fusermount -u -z '" + point + "'"); }
    std::error_code ignored;
    std::filesystem::remove_all(directory, ignored);
}

pid_t startProcess(const std::vector<std::string>& command, const std::string& output) {
    std::vector<char*> arguments;
    for (const std::string& word : command) { arguments.push_back(const_cast<char*>(word.c_str())); }
    arguments.push_back(nullptr);
    const int out = open((output + ".out").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    const int err = open((output + ".err").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    const pid_t process = fork();
    if (process == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(out, 1);
        dup2(err, 2);
        execv(arguments[0], arguments.data());
        _exit(127);
    }
    close(out);
    close(err);
    watchProcess(process);
    return process;
}

int endOf(pid_t process, double seconds) {
    int status = 0;
    const bool ended = eventually([&] { return waitpid(process, &status, WNOHANG) == process; }, seconds);
    if (!ended) {
        kill(process, SIGKILL);
        waitpid(process, &status, 0);
    }
    {
        const std::lock_guard<std::mutex> guard(watchLock);
        std::erase(watched, process);
    }
    return !ended ? -1 : WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int runShell(const std::string& command, std::string* output, double seconds) {
    char name[] = "/tmp/kelvane-shell-XXXXXX";
    const int file = mkstemp(name);
    const pid_t process = fork();
    if (process == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(file, 1);
        dup2(file, 2);
        execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
        _exit(127);
    }
    const int status = endOf(process, seconds);
    if (output != nullptr) {
        *output = fileText(name);
    }
    close(file);
    unlink(name);
    return status;
}

std::string fileText(const std::string& name) {
    std::ifstream file(name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

bool isMounted(const std::string& directory) { return !mountsBelow(directory).empty(); }

pid_t adoptedChild(const std::vector<pid_t>& known) {
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream children(task.path() / "children");
        for (pid_t child = 0; children >> child;) {
            if (std::find(known.begin(), known.end(), child) == known.end()) {
                return child;
            }
        }
    }
    return 0;
}

void adoptOrphans() { prctl(PR_SET_CHILD_SUBREAPER, 1); }

void startWatchdog(double seconds) {
    const std::lock_guard<std::mutex> guard(watchLock);
    static bool running = false;
    if (!running) {
        running = true;
        std::thread(watch).detach();
    }
    deadline = std::chrono::steady_clock::now() + std::chrono::duration_cast<std::chrono::steady_clock::duration>(std::chrono::duration<double>(seconds));
}

void stopWatchdog() {
    const std::lock_guard<std::mutex> guard(watchLock);
    deadline = std::chrono::steady_clock::time_point::max();
    watched.clear();
}

void watchProcess(pid_t process) {
    const std::lock_guard<std::mutex> guard(watchLock);
    watched.push_back(process);
}

void sleepMilliseconds(int milliseconds) { std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds)); }
