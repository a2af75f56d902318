// Linked into a daemon for the tests with --wrap=time: its clock runs 60 times faster, so that the cache, which lasts a
// minute, is dropped every second.
#include <ctime>

extern "C" time_t __wrap_time(time_t* result);

extern "C" time_t __wrap_time(time_t* result) {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    static const time_t start = now.tv_sec;
    const time_t fast = start + (now.tv_sec - start) * 60 + now.tv_nsec / (1'000'000'000 / 60);
    if (result != nullptr) {
        *result = fast;
    }
    return fast;
}
