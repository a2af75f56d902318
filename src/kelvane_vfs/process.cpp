#include "kelvane_vfs/process.h"

#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

extern char** environ; // which not every platform's headers declare

char baseURL[128] = "";
char* finderName = nullptr;
const char* mountPoint = nullptr;
char* mountDirectory = nullptr;
int threadPipe[2] = {0, 0};
pthread_t closeFuseThread;
std::atomic<std::int32_t> exitCode{0};
int finderInformed = 0;

void openStandardDescriptors() {
    for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
        if (fcntl(descriptor, F_GETFD) < 0) {
            // The lowest number that is free.
            [[maybe_unused]] const int opened = open("/dev/null", O_RDWR);
        }
    }
}

void forgetEnvironment() {
    static char* none[] = {nullptr};
    environ = none;
}

void endProcess(int status) {
    static pthread_mutex_t ending = PTHREAD_MUTEX_INITIALIZER;
    pthread_mutex_lock(&ending);
    std::fflush(stdout);
    _exit(status);
}
