// kelvane_storage: serves a local directory to kelvane_vfs.
#include "storage/connections.h"
#include "storage/service.h"
#include "storage/tree.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <getopt.h>
#include <netdb.h>
#include <sstream>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace {

constexpr unsigned mostThreads = 256;
constexpr rlim_t ownDescriptors = 32;
constexpr rlim_t fewestConnections = 8;
constexpr rlim_t mostConnections = 16384;

struct Arguments {
    std::string listen = "127.0.0.1";
    unsigned port = 0;
    unsigned threads = 0;
    std::string certificateFile;
    std::string keyFile;
    const char* directory = nullptr;
    ServiceOptions service;
};

int complain(const std::string& text) {
    std::fprintf(stderr, "kelvane_storage: %s\n", text.c_str());
    return 1;
}

int usage(std::FILE* stream) {
    std::fputs("usage: kelvane_storage [--listen ADDRESS] [--port N] [--prefix PATH] [--read-only]\n"
               "                       [--tls-cert FILE --tls-key FILE] [--threads N] DIRECTORY\n"
               "Serves DIRECTORY over HTTP and prints the base URL to give to kelvane_vfs.\n"
               "Port 0, which is the default, picks a free one; the default address is 127.0.0.1.\n",
               stream);
    return stream == stdout ? 0 : 2;
}

bool parseCount(const char* text, unsigned most, unsigned& count) {
    const char* end = text + std::strlen(text);
    const auto [stop, error] = std::from_chars(text, end, count);
    return error == std::errc() && stop == end && stop != text && count <= most;
}

// What may stand in a URL's path as it is.
bool isPlain(const std::string& prefix) {
    return std::all_of(prefix.begin(), prefix.end(),
                       [](char c) { return c > ' ' && c < 0x7f && c != '?' && c != '#'; });
}

// -1 to go on, else the exit status.
int parseArguments(int argc, char* argv[], Arguments& arguments) {
    const option options[] = {
        {"listen", required_argument, nullptr, 'l'},
        {"port", required_argument, nullptr, 'p'},
        {"prefix", required_argument, nullptr, 'x'},
        {"read-only", no_argument, nullptr, 'r'},
        {"tls-cert", required_argument, nullptr, 'c'},
        {"tls-key", required_argument, nullptr, 'k'},
        {"threads", required_argument, nullptr, 't'},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };
    ServiceOptions& service = arguments.service;
    bool valid = true;
    for (int option = 0; (option = getopt_long(argc, argv, "h", options, nullptr)) != -1;) {
        switch (option) {
        case 'l':
            arguments.listen = optarg;
            break;
        case 'p':
            valid = valid && parseCount(optarg, UINT16_MAX, arguments.port);
            break;
        case 'x':
            service.prefix = optarg;
            valid = valid && service.prefix.starts_with('/') && isPlain(service.prefix);
            break;
        case 'r':
            service.readOnly = true;
            break;
        case 'c':
            arguments.certificateFile = optarg;
            break;
        case 'k':
            arguments.keyFile = optarg;
            break;
        case 't':
            valid = valid && parseCount(optarg, mostThreads, arguments.threads) && arguments.threads > 0;
            break;
        case 'h':
            return usage(stdout);
        default:
            return usage(stderr);
        }
    }
    if (!valid || argc - optind != 1 || arguments.certificateFile.empty() != arguments.keyFile.empty()) {
        return usage(stderr);
    }
    arguments.directory = argv[optind];
    return -1;
}

// False when there is nothing to read: an empty certificate must not turn into a service without TLS.
bool readFile(const std::string& name, std::string& text) {
    std::ifstream file(name, std::ios::binary);
    std::ostringstream content;
    content << file.rdbuf();
    text = content.str();
    return !text.empty();
}

bool resolveAddress(const Arguments& arguments, sockaddr_storage& address) {
    addrinfo hints = {};
    hints.ai_flags = AI_PASSIVE;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(arguments.listen.c_str(), std::to_string(arguments.port).c_str(), &hints, &found) != 0) {
        return false;
    }
    std::memcpy(&address, found->ai_addr, found->ai_addrlen);
    freeaddrinfo(found);
    return true;
}

// The URL under which a client on this machine reaches the service.
std::string baseUrl(const Arguments& arguments, const sockaddr_storage& address, unsigned port) {
    char host[INET6_ADDRSTRLEN] = "";
    const bool isV6 = address.ss_family == AF_INET6;
    const void* bytes = isV6 ? static_cast<const void*>(&reinterpret_cast<const sockaddr_in6&>(address).sin6_addr)
                             : &reinterpret_cast<const sockaddr_in&>(address).sin_addr;
    inet_ntop(address.ss_family, bytes, host, sizeof host);
    std::string name = host;
    if (name == "0.0.0.0") {
        name = "127.0.0.1";
    } else if (isV6) {
        name = name == "::" ? "[::1]" : "[" + name + "]";
    }
    return (arguments.service.certificate.empty() ? "http://" : "https://") + name + ":" + std::to_string(port) +
           arguments.service.prefix;
}

// Thousands of connections need more descriptors than the usual soft limit. Returns how many connections the limit
// leaves room for when each of them opens a file or two.
unsigned raiseDescriptorLimit() {
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return fewestConnections;
    }
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    const rlim_t room = limit.rlim_cur > ownDescriptors ? (limit.rlim_cur - ownDescriptors) / 3 : 0;
    return static_cast<unsigned>(std::clamp<rlim_t>(room, fewestConnections, mostConnections));
}

} // namespace

int main(int argc, char* argv[]) {
    Arguments arguments;
    if (const int status = parseArguments(argc, argv, arguments); status >= 0) {
        return status;
    }
    ServiceOptions& service = arguments.service;
    if (!arguments.certificateFile.empty() &&
        (!readFile(arguments.certificateFile, service.certificate) || !readFile(arguments.keyFile, service.key))) {
        return complain("cannot read the certificate or its key");
    }
    if (const int error = openTree(arguments.directory); error != 0) {
        return complain(std::string(arguments.directory) + ": " + std::strerror(-error));
    }
    sockaddr_storage address = {};
    if (!resolveAddress(arguments, address)) {
        return complain("no such address: " + arguments.listen);
    }
    service.connections = raiseDescriptorLimit();

    // Blocked before the service's threads are made, so that the signals come to the descriptor.
    sigset_t stopping;
    sigemptyset(&stopping);
    sigaddset(&stopping, SIGINT);
    sigaddset(&stopping, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopping, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN); // a file that may not grow further is a refused request

    const int listener = listenOn(reinterpret_cast<const sockaddr*>(&address), sizeof address);
    if (listener < 0) {
        return complain("cannot serve on " + arguments.listen + " port " + std::to_string(arguments.port) + ": " +
                        std::strerror(-listener));
    }
    MHD_Daemon* daemon = startService(service);
    const int signals = signalfd(-1, &stopping, SFD_CLOEXEC);
    if (daemon == nullptr || signals < 0) {
        return complain(service.certificate.empty() ? std::string("cannot serve: ") + std::strerror(errno)
                                                    : "cannot serve: the certificate or its key is not usable");
    }
    std::puts(baseUrl(arguments, address, portOf(listener)).c_str());
    std::fflush(stdout);

    acceptConnections(daemon, {listener}, service.connections, signals);
    close(listener);
    if (!stopService(daemon)) {
        std::_Exit(0);
    }
    return 0;
}
