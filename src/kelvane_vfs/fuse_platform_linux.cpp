#include "kelvane_vfs/fuse_platform.h"

#include "kelvane_vfs/process.h"
#include "kelvane_vfs/transport.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <fuse_lowlevel.h>
#include <malloc.h>
#include <pthread.h>
#include <sstream>
#include <string>
#include <sys/resource.h>
#include <sys/sysmacros.h>

namespace {

// fuse_main_real runs the loop on the thread that started the process, also after it went to the background.
const pthread_t mainThread = pthread_self();

// The running loop; null before the init callback and after the destroy callback. The lock keeps the handle
// alive while the exit thread uses it.
pthread_mutex_t loopLock = PTHREAD_MUTEX_INITIALIZER;
struct fuse* runningLoop = nullptr;
bool loopEnded = false;

// The device number of the disk at `mountDirectory`, which no other mount has while the disk lives; 0 before the init
// callback.
dev_t diskDevice = 0;

// How far the kernel has to read ahead on it.
unsigned readAheadKilobytes = 0;

// The kernel reads in requests of this size, and ahead of programs by one of them unless it is told otherwise.
constexpr unsigned largestRead = partSize;
constexpr unsigned mostReadsAhead = 64;
constexpr unsigned usualBackground = 12;     // requests that the kernel has under way in the background
constexpr double lineBytesPerSecond = 125e6; // of a gigabit line
constexpr unsigned readAheads = 2;           // under way at once: the next begins while one is read

constexpr long firstPauseNanoseconds = 1'000'000;
constexpr long longestPauseNanoseconds = 128'000'000;

void wakeUp(int) {}

// With -o auto_unmount a helper unmounts once its socket to this process closes, but only a disk that is dead by then.
// When a process ends, the kernel closes its files from the highest number down, so a high number for the FUSE device
// makes sure that the disk dies first. The number is the highest for which the kernel need not grow the table of files;
// that takes some ten milliseconds in a process of several threads.
void holdDeviceToTheEnd(struct fuse_session* session) {
    constexpr int highNumber = 63;
    const int device = fuse_chan_fd(fuse_session_next_chan(session, nullptr));
    [[maybe_unused]] const int second = fcntl(device, F_DUPFD_CLOEXEC, highNumber);
}

// A path as the table of mounts writes it.
std::string escaped(const char* path) {
    std::string text;
    for (; *path != '\0'; ++path) {
        char escape[sizeof "\\000"] = {*path};
        if (std::strchr(" \t\n\\", *path) != nullptr) {
            std::snprintf(escape, sizeof escape, "\\%03o", static_cast<unsigned char>(*path));
        }
        text += escape;
    }
    return text;
}

// The device number of what is mounted at `mountDirectory`; 0 when nothing is. A look at the directory itself would
// wait for the process that serves it, and at an automount point for the mount(8) that has started this process.
dev_t deviceAtMountDirectory() {
    dev_t device = 0;
    const std::string directory = mountDirectory == nullptr ? "" : escaped(mountDirectory);
    std::ifstream table("/proc/self/mountinfo");
    for (std::string line; std::getline(table, line);) {
        std::istringstream fields(line);
        std::string other;
        std::string point;
        unsigned majorNumber = 0;
        unsigned minorNumber = 0;
        char colon = 0;
        fields >> other >> other >> majorNumber >> colon >> minorNumber >> other >> point;
        if (point == directory) {
            device = makedev(majorNumber, minorNumber); // the last one is on top
        }
    }
    return device;
}

// Tells the kernel how far to read ahead on this disk; false when it refuses.
bool setReadAhead() {
    std::ofstream setting("/sys/class/bdi/" + std::to_string(major(diskDevice)) + ":" +
                          std::to_string(minor(diskDevice)) + "/read_ahead_kb");
    return static_cast<bool>(setting << readAheadKilobytes << std::flush);
}

// An ordinary user is allowed to only when udev has run the package's rule, which takes a while at boot and at log-in.
void* setReadAheadLater(void*) {
    constexpr int attempts = 300;
    constexpr timespec pause = {0, 100'000'000};
    for (int i = 0; i < attempts && !setReadAhead(); ++i) {
        nanosleep(&pause, nullptr);
    }
    return nullptr;
}

// One attempt to end the loop; false when the loop is over and no further one is needed. The first attempt marks the
// session as ended (`marked`), and each interrupts the main thread. Both loops of the library clear the mark as the
// last thing they do, so a mark that is gone again means that the library is already unmounting, which must not be
// interrupted. Before the init callback there is no loop to end yet, and the next attempt may find one.
bool endLoopOnce(bool& marked) {
    pthread_mutex_lock(&loopLock);
    bool running = !loopEnded;
    if (running && runningLoop != nullptr) {
        if (!marked) {
            fuse_exit(runningLoop);
            marked = true;
        } else {
            running = fuse_exited(runningLoop) != 0;
        }
        if (running) {
            pthread_kill(mainThread, SIGRTMIN);
        }
    }
    pthread_mutex_unlock(&loopLock);
    return running;
}

} // namespace

void platformBeforeLoop() {
    // Blocks of this size or more go back to the system when they are freed, and up to twice as much free memory stays
    // at the end of a heap. The buffers of a read or a write are smaller than that, those of a long listing larger.
    constexpr int largestKeptBlock = 1 << 19;
    mallopt(M_MMAP_THRESHOLD, largestKeptBlock);
    mallopt(M_TRIM_THRESHOLD, 2 * largestKeptBlock);

    rlimit descriptors = {};
    getrlimit(RLIMIT_NOFILE, &descriptors);
    descriptors.rlim_cur = descriptors.rlim_max;
    setrlimit(RLIMIT_NOFILE, &descriptors);

    // The signal that ends a sleep of the main thread: one that neither users nor the FUSE library send, without
    // SA_RESTART, and unblocked, because the parent process may have blocked it.
    struct sigaction wake = {};
    wake.sa_handler = wakeUp;
    sigemptyset(&wake.sa_mask);
    sigaction(SIGRTMIN, &wake, nullptr);

    sigset_t wakeSignal;
    sigemptyset(&wakeSignal);
    sigaddset(&wakeSignal, SIGRTMIN);
    pthread_sigmask(SIG_UNBLOCK, &wakeSignal, nullptr);
}

void platformLoopStarts(struct fuse_conn_info* conn) {
    pthread_mutex_lock(&loopLock);
    runningLoop = fuse_get_context()->fuse;
    loopEnded = false;
    pthread_mutex_unlock(&loopLock);
    diskDevice = deviceAtMountDirectory();
    holdDeviceToTheEnd(fuse_get_session(fuse_get_context()->fuse));
    conn->want |= conn->capable & FUSE_CAP_BIG_WRITES;
    conn->max_write = std::min<unsigned>(conn->max_write, partSize);
}

void platformFitReadAhead(struct fuse_conn_info* conn, double roundTrip) {
    const double onTheWay = readAheads * roundTrip * lineBytesPerSecond / largestRead;
    const auto reads = static_cast<unsigned>(std::min<double>(onTheWay, mostReadsAhead));
    // On the main thread runs the loop with one request at a time: look-ups would wait for all that is read ahead.
    if (pthread_equal(pthread_self(), mainThread) != 0) {
        return;
    }
    // A limit below the kernel's own was chosen on the command line.
    if (reads < 2 || conn->max_readahead < largestRead) {
        return;
    }
    readAheadKilobytes = reads * (largestRead / 1024);
    pthread_t later = {};
    if (!setReadAhead() && pthread_create(&later, nullptr, setReadAheadLater, nullptr) == 0) {
        pthread_detach(later);
    }
    conn->max_readahead = reads * largestRead;
    // The kernel's own limits would delay the second of them.
    if (conn->max_background == 0) {
        conn->max_background = std::max(readAheads * reads, usualBackground);
        conn->congestion_threshold = conn->max_background;
    }
}

void platformLoopEnded() {
    std::signal(SIGPIPE, SIG_IGN);
    pthread_mutex_lock(&loopLock);
    runningLoop = nullptr;
    loopEnded = true;
    pthread_mutex_unlock(&loopLock);
}

// The multithreaded loop sleeps in sem_wait on the main thread, the single-threaded one in a read of the FUSE
// device. Each looks at the mark only between two sleeps, so the signal that interrupts the sleep may come
// just too early; hence it is sent again and again until the loop is over.
void fuse_exit_handler_internal_np() {
    bool marked = false;
    timespec pause = {0, firstPauseNanoseconds};
    while (endLoopOnce(marked)) {
        nanosleep(&pause, nullptr);
        if (pause.tv_nsec < longestPauseNanoseconds) {
            pause.tv_nsec *= 2;
        }
    }
}

// Somebody may have unmounted the disk meanwhile and mounted another one there. The library unmounts in the way that is
// allowed to this user; without a channel it detaches the disk and does not wait.
void platformDetachMount() {
    if (diskDevice != 0 && deviceAtMountDirectory() == diskDevice) {
        fuse_unmount(mountDirectory, nullptr);
    }
}
