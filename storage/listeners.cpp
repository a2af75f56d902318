#include "storage/listeners.h"

#include <arpa/inet.h>
#include <cstdlib>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace {

constexpr int firstInherited = 3;
constexpr int backlog = 1024;
constexpr int maxAttempts = 64;
// For each connection, which inherits it. It bounds the memory of the kernel that clients take which do not read.
constexpr int sendBuffer = 1 << 18;

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
    if (getaddrinfo(name == "localhost" ? "::1" : name.c_str(), port.c_str(), &hints, &found) != 0) {
        return;
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

std::string authorityOf(const Descriptor& listener, const std::string& host) {
    const Address address = addressOf(listener);
    if (address.any.sa_family == AF_UNIX) {
        return std::string("//unix:") + address.local.sun_path + ":";
    }
    char text[INET6_ADDRSTRLEN] = "";
    const bool isV6 = address.any.sa_family == AF_INET6;
    inet_ntop(address.any.sa_family, isV6 ? static_cast<const void*>(&address.v6.sin6_addr) : &address.v4.sin_addr,
              text, sizeof text);
    const std::string own = std::strcmp(text, "0.0.0.0") == 0 ? "127.0.0.1"
                            : std::strcmp(text, "::") == 0    ? "::1"
                                                              : text;
    const std::string name = !host.empty() ? host : isV6 ? "[" + own + "]" : own;
    return "//" + name + ":" + std::to_string(ntohs(address.v4.sin_port));
}
