// Child processes and mounts for the end-to-end tests: nothing that is started or mounted here outlives the
// test.
#pragma once

#include <chrono>
#include <string>
#include <sys/types.h>
#include <vector>

// A scratch directory below $KELVANE_TEST_ROOT (default: the temporary directory).
std::string makeScratch();

// Unmounts whatever is still mounted below the scratch directory and removes it.
void removeScratch(const std::string& directory);

// Starts a program; its outputs go to the files OUTPUT.out and OUTPUT.err. It dies with the test.
pid_t startProcess(const std::vector<std::string>& command, const std::string& output);

// Waits for the process to end: its exit status, 128 + signal, or -1 (and the process is killed) after
// `seconds`.
int endOf(pid_t process, double seconds = 20);

// Runs a shell command: its exit status; what it wrote to both outputs goes to `*output`. Killed after
// `seconds`.
int runShell(const std::string& command, std::string* output = nullptr, double seconds = 100);

// Waits until `condition` holds; false after `seconds`.
template <typename Condition> bool eventually(Condition condition, double seconds = 20);

std::string fileText(const std::string& name);
bool isMounted(const std::string& directory);

// The first child of this process that is not in `known`: a daemon that went to the background comes to us.
pid_t adoptedChild(const std::vector<pid_t>& known);
void adoptOrphans();

// Kills the processes of the watch list after `seconds`, so that a hang fails a test instead of stopping it:
// a client of a hung mount cannot be ended before its daemon is.
void startWatchdog(double seconds);
void stopWatchdog();
void watchProcess(pid_t process);

void sleepMilliseconds(int milliseconds);

template <typename Condition> bool eventually(Condition condition, double seconds) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        sleepMilliseconds(5);
    }
    return true;
}
