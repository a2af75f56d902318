#include "kelvane_vfs/shutdown.h"

#include "kelvane_vfs/fuse_platform.h"
#include "kelvane_vfs/process.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <poll.h>
#include <unistd.h>

namespace {

// The process that the exit thread lives in; 0 while there is no pipe for it to wait on.
pid_t exitThreadProcess = 0;

// The self-pipe from the signal handler to the watchdog.
int watchdogPipe[2] = {-1, -1};

// Two signals may have one cause (a terminal that closes, a script that passes an interrupt on), so the loop still has
// this long to end.
constexpr int graceMilliseconds = 500;
constexpr int patienceMilliseconds = 30'000;

// Handlers that still print: the exit thread lets them finish, so that the lines come in their order.
std::atomic<int> handlersRunning{0};
constexpr timespec shortPause = {0, 100'000};

// printf for the signal handler, past the stream: the handler may have interrupted a printf on this very thread.
void printInHandler(const char* format, ...) __attribute__((format(printf, 1, 2)));

void printInHandler(const char* format, ...) {
    char line[4096 + 128];
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    const std::size_t size = length < static_cast<int>(sizeof line) ? length : sizeof line - 1;
    for (std::size_t done = 0; length > 0 && done < size;) {
        const ssize_t written = write(STDOUT_FILENO, line + done, size - done);
        if (written <= 0) {
            return;
        }
        done += written;
    }
}

int createExitThread() {
    exitThreadProcess = getpid();
    return pthread_create(&closeFuseThread, nullptr, exitThreadFunction, const_cast<char*>(mountPoint));
}

// Does not flush: the trace is written line by line, and its reader may have stopped reading.
[[noreturn]] void endAtOnce() {
    platformDetachMount();
    _exit(1);
}

void* watchdogFunction(void*) {
    char byte = 0;
    if (read(watchdogPipe[0], &byte, 1) == 1) {
        poll(nullptr, 0, graceMilliseconds);
        pollfd second = {watchdogPipe[0], POLLIN, 0};
        poll(&second, 1, patienceMilliseconds - graceMilliseconds);
    }
    endAtOnce();
}

// The watchdog takes no signal: a handler that prints to a reader who has stopped reading would block it.
int createWatchdog() {
    if (pipe(watchdogPipe) != 0) {
        return errno;
    }
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    pthread_t watchdog = {};
    const int created = pthread_create(&watchdog, nullptr, watchdogFunction, nullptr);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (created == 0) {
        pthread_detach(watchdog);
    }
    return created;
}

} // namespace

void startExitThread() {
    const int piped = pipe(threadPipe);
    if (piped != 0) {
        std::printf("pipe resturned %d, error: %s\n", piped, std::strerror(errno));
        return;
    }
    // Only a negative result counts as a failure, though the thread library reports errors as positive numbers.
    const int created = createExitThread();
    if (created < 0) {
        std::printf("pthread_create returned %d\n", created);
    } else {
        std::puts("thread started, pipe ready");
    }
}

void prepareToStop() {
    if (exitThreadProcess != 0 && exitThreadProcess != getpid()) {
        close(threadPipe[0]);
        close(threadPipe[1]);
        if (pipe(threadPipe) != 0 || createExitThread() != 0) {
            endAtOnce();
        }
    }
    if (const int failure = createWatchdog(); failure != 0) {
        std::fprintf(stderr, "no watchdog of the stop: %s\n", std::strerror(failure));
    }
}

void* exitThreadFunction(void*) {
    char byte = 0;
    [[maybe_unused]] const ssize_t received = read(threadPipe[0], &byte, 1);
    while (handlersRunning != 0) {
        nanosleep(&shortPause, nullptr);
    }
    std::puts("got packet from signalHandler, trying to exit...");
    fuse_exit_handler_internal_np();
    pthread_exit(nullptr);
}

void handleSignal(int signal) {
    const int savedErrno = errno;
    const char byte = 0;
    // First, because printing may block.
    [[maybe_unused]] const ssize_t told = write(watchdogPipe[1], &byte, 1);
    ++handlersRunning;
    printInHandler("handleSignal: %d\n", signal);
    printInHandler("stopping fuse for mount point %s\n", mountPoint);
    exitCode = 1;
    const ssize_t written = write(threadPipe[1], &byte, 1);
    const int writeError = errno;
    printInHandler("handleSignal: write result = %d\n", static_cast<int>(written));
    if (written < 0) {
        printInHandler("error: %s\n", std::strerror(writeError));
    }
    --handlersRunning;
    errno = savedErrno;
}

int set_one_signal_handler(int signal, void (*handler)(int)) {
    struct sigaction action = {};
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;

    struct sigaction previous = {};
    if (sigaction(signal, nullptr, &previous) == -1) {
        std::puts("fuse: cannot get old signal handler");
        return -1;
    }
    if (sigaction(signal, &action, nullptr) == -1) {
        std::puts("fuse: cannot set signal handler");
        return -1;
    }
    return 0;
}

void signals_init() {
    std::puts("settings up signal handlers");
    set_one_signal_handler(SIGHUP, handleSignal);
    set_one_signal_handler(SIGINT, handleSignal);
    set_one_signal_handler(SIGTERM, handleSignal);
    set_one_signal_handler(SIGPIPE, SIG_IGN);
}
