#include "storage/connections.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <mutex>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <new>
#include <poll.h>
#include <set>
#include <sys/signalfd.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

constexpr int listenBacklog = 1024;
constexpr std::int64_t headerMilliseconds = 30000;
// While other connections wait, one whose header has not come within this time is closed to make room.
constexpr std::int64_t crowdedMilliseconds = 1000;
constexpr int lookMilliseconds = 1000;
constexpr int crowdedLookMilliseconds = 50;

struct Client {
    int socket;
    // Milliseconds of the clock. Positive: when the client's time is over. 0: it has no limit. Negative: its next
    // request has not begun yet; the number without its sign is the time when it could begin.
    std::atomic<std::int64_t> due;
};

std::mutex clientsMutex;
std::set<Client*> clients;       // guarded by clientsMutex
std::atomic<unsigned> begun = 0; // connections that the library has begun to serve since the start

std::int64_t now() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now().time_since_epoch()).count();
}

void setDue(MHD_Connection* connection, std::int64_t due) {
    const auto* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
    if (info != nullptr && info->socket_context != nullptr) {
        static_cast<Client*>(info->socket_context)->due = due;
    }
}

bool hasReceived(int socket, std::int64_t withinMilliseconds) {
    tcp_info info = {};
    socklen_t length = sizeof info;
    return getsockopt(socket, IPPROTO_TCP, TCP_INFO, &info, &length) == 0 &&
           info.tcpi_last_data_recv < withinMilliseconds;
}

// Shuts down the connections whose time is over; their threads do the rest.
void endSlowClients(bool crowded) {
    const std::int64_t time = now();
    const std::int64_t over = crowded ? time + headerMilliseconds - crowdedMilliseconds : time;
    const std::lock_guard lock(clientsMutex);
    for (Client* client : clients) {
        std::int64_t due = client->due;
        if (due < 0 && hasReceived(client->socket, time + due)) {
            client->due.compare_exchange_strong(due, time + headerMilliseconds);
        } else if (due > 0 && due <= over) {
            shutdown(client->socket, SHUT_RDWR);
        }
    }
}

std::size_t countClients() {
    const std::lock_guard lock(clientsMutex);
    return clients.size();
}

enum class Accepted { one, none, noRoom };

Accepted acceptOne(MHD_Daemon* daemon, int listener) {
    sockaddr_storage address = {};
    socklen_t length = sizeof address;
    const int socket = accept4(listener, reinterpret_cast<sockaddr*>(&address), &length, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (socket < 0) {
        return errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS ? Accepted::noRoom
                                                                                         : Accepted::none;
    }
    return MHD_add_connection(daemon, socket, reinterpret_cast<const sockaddr*>(&address), length) == MHD_YES
               ? Accepted::one
               : Accepted::none;
}

} // namespace

int listenOn(const sockaddr* address, socklen_t length) {
    const int listener = socket(address->sa_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const int on = 1;
    if (listener < 0) {
        return -errno;
    }
    if (setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        (address->sa_family == AF_INET6 && setsockopt(listener, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on) != 0) ||
        bind(listener, address, length) != 0 || listen(listener, listenBacklog) != 0) {
        const int error = errno;
        close(listener);
        return -error;
    }
    return listener;
}

std::uint16_t portOf(int listener) {
    sockaddr_in6 address = {};
    socklen_t length = sizeof address;
    getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin6_port); // at the same place for both families
}

int acceptConnections(MHD_Daemon* daemon, const std::vector<int>& listeners, unsigned most, int signals) {
    std::vector<pollfd> waited = {{signals, POLLIN, 0}};
    for (const int listener : listeners) {
        waited.push_back({listener, POLLIN, 0});
    }
    std::int64_t nextLook = 0;
    unsigned handedOver = begun;
    bool hasRoom = true;
    for (;;) {
        // The library begins to serve a connection on a thread of its own, a little later: perhaps after `handedOver`
        // was set back below.
        const unsigned started = begun;
        if (static_cast<int>(handedOver - started) < 0) {
            handedOver = started;
        }
        const bool isFull = countClients() + (handedOver - started) >= most;
        const bool crowded = isFull || !hasRoom;
        if (const std::int64_t time = now(); isFull || time >= nextLook) {
            endSlowClients(isFull);
            nextLook = time + lookMilliseconds;
            handedOver = begun; // the library may have dropped some for lack of memory
        }
        hasRoom = true;
        if (poll(waited.data(), crowded ? 1 : waited.size(), crowded ? crowdedLookMilliseconds : lookMilliseconds) <=
            0) {
            continue;
        }
        if (signalfd_siginfo signal; waited[0].revents != 0 && read(signals, &signal, sizeof signal) == sizeof signal) {
            return static_cast<int>(signal.ssi_signo);
        }
        for (std::size_t i = 1; i < waited.size() && !crowded; ++i) {
            if (waited[i].revents != 0) {
                const Accepted accepted = acceptOne(daemon, waited[i].fd);
                handedOver += accepted == Accepted::one ? 1 : 0;
                hasRoom = hasRoom && accepted != Accepted::noRoom;
            }
        }
    }
}

void onConnection(void*, MHD_Connection* connection, void** context, MHD_ConnectionNotificationCode code) {
    const std::lock_guard lock(clientsMutex);
    if (code == MHD_CONNECTION_NOTIFY_CLOSED) {
        auto* client = static_cast<Client*>(*context);
        clients.erase(client);
        delete client;
        return;
    }
    const int socket = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
    Client* client = nullptr;
    try {
        client = new Client{socket, now() + headerMilliseconds};
        clients.insert(client);
    } catch (const std::bad_alloc&) {
        delete client;
        client = nullptr;
        shutdown(socket, SHUT_RDWR);
    }
    *context = client;
    ++begun;
}

void headerArrived(MHD_Connection* connection) {
    setDue(connection, 0);
}

void awaitRefusedBody(MHD_Connection* connection) {
    setDue(connection, now() + headerMilliseconds);
}

void awaitNextHeader(MHD_Connection* connection) {
    setDue(connection, -now());
}
