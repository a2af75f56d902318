// Linked into a daemon for the tests with --wrap=time: its clock runs 60 times faster, so that the cache, which lasts a
// minute, is dropped every second. With --wrap=poll, a stop has at most a thirtieth of its time, but the loop has its
// grace six times over.
#include <ctime>
#include <poll.h>

extern "C" int __real_poll(pollfd* descriptors, nfds_t count, int milliseconds);

extern "C" time_t __wrap_time(time_t*) {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    static const time_t start = now.tv_sec;
    return start + (now.tv_sec - start) * 60 + now.tv_nsec / (1'000'000'000 / 60);
}

extern "C" int __wrap_poll(pollfd* descriptors, nfds_t count, int milliseconds) {
    return __real_poll(descriptors, count, milliseconds > 1000 ? milliseconds / 30 : milliseconds * 6);
}
