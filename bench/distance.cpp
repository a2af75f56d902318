// A line to a distant place on one machine: makes a network name space and joins it to the caller's by two tun devices,
// between which every packet takes half a round trip. Bandwidth is not limited, and no packet is lost.
//   distance MILLISECONDS   prints the process ID, whose network name space is the distant place, and runs until it is
//   ended. The caller's address is 192.0.2.1 and the distant one 192.0.2.2, so the caller needs a name space of its
//   own. It needs `ip` (iproute2).
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <linux/if_tun.h>
#include <mutex>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t largestPacket = 65536 + 64; // a segment before it is split, and the header of the device

struct Packet {
    Clock::time_point due;
    std::vector<char> bytes;
};

void check(int outcome, const char* what) {
    if (outcome < 0) {
        std::perror(what);
        std::exit(1);
    }
}

// A tun device of this network name space. It takes and gives large segments whole, as network cards do.
int device(const char* setUp) {
    const int tun = open("/dev/net/tun", O_RDWR | O_CLOEXEC);
    check(tun, "distance: /dev/net/tun");
    ifreq interface = {};
    std::strcpy(interface.ifr_name, "distance");
    interface.ifr_flags = IFF_TUN | IFF_NO_PI | IFF_VNET_HDR;
    check(ioctl(tun, TUNSETIFF, &interface), "distance: tun");
    check(ioctl(tun, TUNSETOFFLOAD, TUN_F_CSUM | TUN_F_TSO4), "distance: tun");
    check(-std::system(setUp), "distance: ip");
    return tun;
}

// Passes packets on in one direction.
void carry(int from, int to, std::chrono::nanoseconds delay) {
    std::deque<Packet> line;
    std::mutex mutex;
    std::condition_variable filled;
    std::thread([&] {
        for (;;) {
            std::unique_lock lock(mutex);
            filled.wait(lock, [&] { return !line.empty(); });
            const Packet packet = std::move(line.front());
            line.pop_front();
            lock.unlock();
            std::this_thread::sleep_until(packet.due);
            check(write(to, packet.bytes.data(), packet.bytes.size()), "distance: write");
        }
    }).detach();
    std::vector<char> buffer(largestPacket);
    for (;;) {
        const ssize_t size = read(from, buffer.data(), buffer.size());
        check(size, "distance: read");
        const std::lock_guard lock(mutex);
        line.push_back({Clock::now() + delay, {buffer.begin(), buffer.begin() + size}});
        filled.notify_one();
    }
}

} // namespace

int main(int argc, char* argv[]) {
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    prctl(PR_SET_TIMERSLACK, 1);
    const std::chrono::nanoseconds oneWay(argc > 1 ? std::llround(std::atof(argv[1]) * 1e6 / 2) : 0);
    const int here = device("ip address add 192.0.2.1 peer 192.0.2.2 dev distance && ip link set distance up");
    check(unshare(CLONE_NEWNET), "distance: name space");
    const int there = device("ip address add 192.0.2.2 peer 192.0.2.1 dev distance && ip link set distance up");
    std::printf("%d\n", getpid());
    std::fflush(stdout);
    std::thread(carry, here, there, oneWay).detach();
    carry(there, here, oneWay);
}
