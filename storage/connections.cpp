#include "storage/connections.h"

#include "storage/log.h"

#include <arpa/inet.h>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <map>
#include <mutex>
#include <netdb.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace {
using Clock = std::chrono::steady_clock;
using std::chrono::seconds;
constexpr int firstInherited = 3; // of the sockets from the service manager
constexpr int backlog = 1024;
constexpr int maxAttempts = 64;
// For each connection, which inherits it. It bounds the memory of the kernel that clients take which do not read.
constexpr int sendBuffer = 1 << 18;
constexpr seconds headerTime(30);
constexpr seconds headerTimeInCrowd(1);
constexpr seconds bodyTime(60);
constexpr int lookMilliseconds = 1000; // between two looks at the clients
constexpr int lookMillisecondsInCrowd = 50;

union Address {
    sockaddr any;
    sockaddr_in v4;
    sockaddr_in6 v6; // the port is at the same place
    sockaddr_un local;
};

Address addressOf(const Descriptor& listener) {
    Address address = {.local = {}};
    socklen_t length = sizeof address - 1; // a path ends with a NUL
    getsockname(listener.number, &address.any, &length);
    return address;
}

bool setOption(int listener, int level, int option, int value) {
    return setsockopt(listener, level, option, &value, sizeof value) == 0;
}

// `raw` are the bytes of a socket address.
Descriptor listenOn(const std::string& raw, in_port_t port) {
    Address address = {.local = {}};
    std::memcpy(&address, raw.data(), raw.size());
    address.v4.sin_port = port != 0 ? port : address.v4.sin_port;
    const bool isV6 = address.any.sa_family == AF_INET6;
    Descriptor made(resultOf(socket(address.any.sa_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)));
    const bool isListening = setOption(made.number, SOL_SOCKET, SO_SNDBUF, sendBuffer) &&
                             setOption(made.number, SOL_SOCKET, SO_REUSEADDR, 1) &&
                             (!isV6 || setOption(made.number, IPPROTO_IPV6, IPV6_V6ONLY, 1)) &&
                             bind(made.number, &address.any, raw.size()) == 0 && listen(made.number, backlog) == 0;
    return isListening || made.number < 0 ? std::move(made) : Descriptor(-errno);
}

// Adds the addresses of `name` that are not there yet.
void resolve(const std::string& name, const std::string& port, std::vector<std::string>& addresses) {
    // localhost has two addresses, whatever the hosts file says, because clients try both.
    if (name == "localhost" || name == "::") {
        resolve(name == "::" ? "0.0.0.0" : "127.0.0.1", port, addresses);
    }
    const addrinfo hints = {.ai_flags = AI_PASSIVE, .ai_socktype = SOCK_STREAM};
    addrinfo* found = nullptr;
    const int error = getaddrinfo(name == "localhost" ? "::1" : name.c_str(), port.c_str(), &hints, &found);
    if (error != 0) {
        throw std::runtime_error("cannot serve on " + name + ": " + gai_strerror(error));
    }
    for (const addrinfo* each = found; each != nullptr; each = each->ai_next) {
        const std::string raw(reinterpret_cast<const char*>(each->ai_addr), each->ai_addrlen);
        if (std::find(addresses.begin(), addresses.end(), raw) == addresses.end()) {
            addresses.push_back(raw);
        }
    }
    freeaddrinfo(found);
}

// Listens with the port that the first address gets. Returns 0 or a negated error number.
int listenOnEach(const std::vector<std::string>& addresses, std::vector<Descriptor>& listeners) {
    int error = -EADDRNOTAVAIL;
    listeners.clear();
    for (const std::string& address : addresses) {
        Descriptor made = listenOn(address, listeners.empty() ? 0 : addressOf(listeners.front()).v4.sin_port);
        error = std::min(made.number, 0);
        if (error == 0) {
            listeners.push_back(std::move(made));
        } else if (error == -EADDRINUSE) {
            return error;
        }
    }
    return listeners.empty() ? error : 0;
}

struct Client {
    std::atomic<Phase> phase = Phase::stranger;
    std::atomic<Clock::time_point> since = Clock::now(); // set before `phase`
};

// By socket: a connection that the library drops without a word counts only until its number is used again.
std::mutex clientsMutex;
std::map<int, Client> clients; // guarded by clientsMutex

Client& clientOf(MHD_Connection* connection) {
    const auto* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
    return *static_cast<Client*>(info->socket_context);
}

// Returns 0 or a negated error number.
int acceptOne(MHD_Daemon* daemon, int listener) try {
    Address address = {.local = {}};
    socklen_t length = sizeof address;
    Descriptor socket(resultOf(accept4(listener, &address.any, &length, SOCK_NONBLOCK | SOCK_CLOEXEC)));
    if (socket.number < 0) {
        return socket.number;
    }
    {
        const std::lock_guard lock(clientsMutex);
        clients.erase(socket.number);
        clients.try_emplace(socket.number);
    }
    const int added = std::exchange(socket.number, -1); // the library closes it
    if (MHD_add_connection(daemon, added, &address.any, length) == MHD_YES) {
        return 0;
    }
    const int error = errno == ENOMEM ? -ENOMEM : 0; // or the address has too many
    const std::lock_guard lock(clientsMutex);
    clients.erase(added);
    return error;
} catch (const std::bad_alloc&) {
    return -ENOMEM;
}
} // namespace

std::vector<Descriptor> inheritListeners() {
    const char* process = std::getenv("LISTEN_PID");
    const char* count = std::getenv("LISTEN_FDS");
    std::vector<Descriptor> listeners;
    if (process != nullptr && count != nullptr && process == std::to_string(getpid())) {
        for (int i = 0; i < std::atoi(count); ++i) {
            const int listener = listeners.emplace_back(firstInherited + i).number;
            fcntl(listener, F_SETFD, FD_CLOEXEC);
            fcntl(listener, F_SETFL, fcntl(listener, F_GETFL) | O_NONBLOCK);
            setOption(listener, SOL_SOCKET, SO_SNDBUF, sendBuffer);
        }
    }
    return listeners;
}

std::vector<Descriptor> openListeners(const std::vector<std::string>& names, const std::string& port) {
    std::vector<std::string> addresses;
    for (const std::string& name : names) {
        resolve(name, port, addresses);
    }
    std::vector<Descriptor> listeners;
    int error = -EADDRINUSE;
    // A port that is free for one address can be taken for another.
    for (int attempts = 0; attempts < maxAttempts && error == -EADDRINUSE; ++attempts) {
        error = listenOnEach(addresses, listeners);
    }
    if (error != 0) {
        throw std::system_error(-error, std::generic_category(), "cannot serve on " + names.back() + " port " + port);
    }
    return listeners;
}

bool isLocal(const Descriptor& listener) {
    const Address address = addressOf(listener);
    return address.any.sa_family == AF_UNIX ||
           (address.any.sa_family == AF_INET ? ntohl(address.v4.sin_addr.s_addr) >> 24 == IN_LOOPBACKNET
                                             : IN6_IS_ADDR_LOOPBACK(&address.v6.sin6_addr));
}

std::string addressText(const sockaddr& address) {
    const bool isV6 = address.sa_family == AF_INET6;
    const std::size_t start = isV6 ? offsetof(sockaddr_in6, sin6_addr) : offsetof(sockaddr_in, sin_addr);
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(address.sa_family, reinterpret_cast<const char*>(&address) + start, text, sizeof text);
    return text;
}

std::string authorityOf(const Descriptor& listener, const std::string& host) {
    const Address address = addressOf(listener);
    if (address.any.sa_family == AF_UNIX) {
        return std::string("//unix:") + address.local.sun_path + ":";
    }
    const std::string text = addressText(address.any);
    const std::string own = text == "0.0.0.0" ? "127.0.0.1" : text == "::" ? "::1" : text;
    const std::string name = !host.empty() ? host : address.any.sa_family == AF_INET6 ? "[" + own + "]" : own;
    return "//" + name + ":" + std::to_string(ntohs(address.v4.sin_port));
}

Clients endSlowClients(bool isCrowded) {
    const Clock::time_point now = Clock::now();
    Clients counted;
    const std::lock_guard lock(clientsMutex);
    for (const auto& [socket, client] : clients) {
        const Phase phase = client.phase;
        const seconds time = phase != Phase::stranger ? bodyTime : isCrowded ? headerTimeInCrowd : headerTime;
        ++counted.all;
        counted.strangers += phase == Phase::stranger ? 1 : 0;
        if (phase != Phase::served && now - client.since.load() > time) {
            shutdown(socket, SHUT_RDWR); // its thread does the rest
        }
    }
    return counted;
}

int acceptConnections(MHD_Daemon* daemon, const std::vector<Descriptor>& listeners, unsigned most, int signals) {
    std::vector<pollfd> waited = {{signals, POLLIN, 0}};
    for (const Descriptor& listener : listeners) {
        waited.push_back({listener.number, POLLIN, 0});
    }
    Clock::time_point nextLook;
    for (int error = 0;;) {
        std::unique_lock lock(clientsMutex);
        const bool isFull = clients.size() >= most;
        lock.unlock();
        const bool isCrowded = isFull || statusOf(error) == MHD_HTTP_SERVICE_UNAVAILABLE;
        if (isCrowded) {
            report(0, isFull ? "all connections are taken" : std::strerror(-error));
        }
        if (const Clock::time_point now = Clock::now(); isCrowded || now >= nextLook) {
            endSlowClients(isCrowded);
            nextLook = now + std::chrono::milliseconds(lookMilliseconds);
        }
        error = 0;
        const int wait = isCrowded ? lookMillisecondsInCrowd : lookMilliseconds;
        if (poll(waited.data(), isCrowded ? 1 : waited.size(), wait) <= 0) {
            continue;
        }
        if (signalfd_siginfo signal; waited[0].revents != 0 && read(signals, &signal, sizeof signal) == sizeof signal) {
            return static_cast<int>(signal.ssi_signo);
        }
        for (std::size_t i = 1; i < waited.size() && !isCrowded; ++i) {
            error = waited[i].revents != 0 ? std::min(error, acceptOne(daemon, waited[i].fd)) : error;
        }
    }
}

void onConnection(void*, MHD_Connection* connection, void** context, MHD_ConnectionNotificationCode code) {
    const int socket = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
    const std::lock_guard lock(clientsMutex);
    if (code == MHD_CONNECTION_NOTIFY_CLOSED) {
        clients.erase(socket);
    } else {
        *context = &clients.at(socket);
    }
}

void enter(MHD_Connection* connection, Phase phase) {
    Client& client = clientOf(connection);
    client.since = Clock::now();
    client.phase = phase;
}

Phase phaseOf(MHD_Connection* connection) {
    return clientOf(connection).phase;
}
