// kelvane_storage: serves a local directory to kelvane_vfs.
#include "storage/certificate.h"
#include "storage/connections.h"
#include "storage/request_log.h"
#include "storage/service.h"
#include "storage/tree.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <getopt.h>
#include <malloc.h>
#include <netdb.h>
#include <netinet/in.h>
#include <new>
#include <string_view>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr rlim_t ownDescriptors = 32;
constexpr rlim_t fewestConnections = 8;
constexpr rlim_t mostConnections = 16384;
constexpr unsigned mostConnectionsOfOne = 1024;
constexpr int mostPortTrials = 64;
constexpr int arenas = 4; // of malloc, for all threads; each keeps some freed memory, and 64 MiB of addresses
constexpr std::size_t longestBaseUrl = 127; // what kelvane_vfs takes

enum Status { success = 0, failure = 1, wrongUsage = 2 };

struct Arguments {
    std::string listen = "127.0.0.1";
    unsigned port = 0;
    bool sync = false;
    std::string certificateFile;
    std::string keyFile;
    std::string usersFile;
    std::string secretFile;
    std::string logFile;
    bool hasSecret = true;
    bool behindProxy = false;
    const char* directory = nullptr;
    ServiceOptions service;
};

const char* const usageText =
    "usage: kelvane_storage [OPTION ...] DIRECTORY\n"
    "Serves DIRECTORY over HTTP and prints the base URL to give to kelvane_vfs.\n"
    "\n"
    "  --listen ADDRESS     address or name to listen on (127.0.0.1)\n"
    "  --port N             port; 0, which is the default, picks a free one\n"
    "  --prefix PATH        what the base URL's path begins with (/)\n"
    "  --read-only          refuse every change\n"
    "  --sync               put every change on the disk before it is answered\n"
    "  --secret-file FILE   keep the secret of the base URL in FILE; without, each start makes a new one\n"
    "  --no-secret          no secret in the base URL\n"
    "  --users FILE         ask for one of the names and passwords in FILE\n"
    "  --host NAME          a name by which clients may call the server; can be repeated\n"
    "  --tls-cert FILE      serve over HTTPS with this certificate\n"
    "  --tls-key FILE       and this key\n"
    "  --behind-proxy       clients come through a proxy that does HTTPS\n"
    "  --log FILE           write a line for each request; - is standard output\n"
    "  --version, --help\n";

void say(const std::string& text) {
    std::fprintf(stderr, "kelvane_storage: %s\n", text.c_str());
}

int complain(const std::string& text, Status status = failure) {
    say(text);
    return status;
}

int complainOfArgument(const std::string& text) {
    return complain(text + "; --help shows the usage", wrongUsage);
}

bool parseCount(const char* text, unsigned most, unsigned& count) {
    const char* end = text + std::strlen(text);
    const auto [stop, error] = std::from_chars(text, end, count);
    return error == std::errc() && stop == end && stop != text && count <= most;
}

// True for a text that can stand in a URL's path as it is.
bool isPlain(const std::string& prefix) {
    return std::all_of(prefix.begin(), prefix.end(),
                       [](char c) { return c > ' ' && c < 0x7f && c != '?' && c != '#'; });
}

// Returns -1 to go on, else the exit status.
int parseArguments(int argc, char* argv[], Arguments& arguments) {
    const option options[] = {
        {"listen", required_argument, nullptr, 'l'},  {"port", required_argument, nullptr, 'p'},
        {"prefix", required_argument, nullptr, 'x'},  {"read-only", no_argument, nullptr, 'r'},
        {"sync", no_argument, nullptr, 'y'},          {"secret-file", required_argument, nullptr, 's'},
        {"no-secret", no_argument, nullptr, 'n'},     {"users", required_argument, nullptr, 'u'},
        {"host", required_argument, nullptr, 'o'},    {"tls-cert", required_argument, nullptr, 'c'},
        {"tls-key", required_argument, nullptr, 'k'}, {"behind-proxy", no_argument, nullptr, 'b'},
        {"log", required_argument, nullptr, 'g'},     {"version", no_argument, nullptr, 'v'},
        {"help", no_argument, nullptr, 'h'},          {nullptr, 0, nullptr, 0},
    };
    ServiceOptions& service = arguments.service;
    std::string& base = service.access.base;
    for (int option = 0; (option = getopt_long(argc, argv, "h", options, nullptr)) != -1;) {
        switch (option) {
        case 'l':
            arguments.listen = optarg;
            break;
        case 'p':
            if (!parseCount(optarg, UINT16_MAX, arguments.port)) {
                return complainOfArgument("--port " + std::string(optarg) + ": not a number from 0 to 65535");
            }
            break;
        case 'x':
            base = optarg;
            if (!base.starts_with('/') || !isPlain(base)) {
                return complainOfArgument("--prefix " + base + ": not a path that can stand in a URL as it is");
            }
            break;
        case 'r':
            service.access.readOnly = true;
            break;
        case 'y':
            arguments.sync = true;
            break;
        case 's':
            arguments.secretFile = optarg;
            break;
        case 'n':
            arguments.hasSecret = false;
            break;
        case 'u':
            arguments.usersFile = optarg;
            break;
        case 'o':
            if (*optarg == '\0' || std::strpbrk(optarg, ":/@ ") != nullptr) {
                return complainOfArgument("--host " + std::string(optarg) + ": not a name alone; it has no port");
            }
            service.access.hosts.emplace_back(optarg);
            break;
        case 'c':
            arguments.certificateFile = optarg;
            break;
        case 'k':
            arguments.keyFile = optarg;
            break;
        case 'b':
            arguments.behindProxy = true;
            break;
        case 'g':
            arguments.logFile = optarg;
            break;
        case 'v':
            std::puts("kelvane_storage " KELVANE_VERSION);
            return success;
        case 'h':
            std::fputs(usageText, stdout);
            return success;
        default: // getopt has printed what is wrong
            return wrongUsage;
        }
    }
    if (argc - optind != 1) {
        return complainOfArgument(argc == optind ? "DIRECTORY is missing"
                                                 : "one argument too many: " + std::string(argv[optind + 1]));
    }
    if (arguments.certificateFile.empty() != arguments.keyFile.empty()) {
        return complainOfArgument(arguments.keyFile.empty() ? "--tls-cert needs --tls-key"
                                                            : "--tls-key needs --tls-cert");
    }
    if (!arguments.hasSecret && !arguments.secretFile.empty()) {
        return complainOfArgument("--secret-file and --no-secret exclude each other");
    }
    arguments.directory = argv[optind];
    service.tls = !arguments.certificateFile.empty();
    return -1;
}

// All addresses of the name or address to listen on, each once. localhost has two, whatever the hosts file says,
// because clients try both.
std::vector<sockaddr_storage> resolveAddresses(const Arguments& arguments) {
    std::vector<std::string> names = {arguments.listen};
    if (arguments.listen == "localhost") {
        names = {"127.0.0.1", "::1"};
    }
    addrinfo hints = {};
    hints.ai_flags = AI_PASSIVE;
    hints.ai_socktype = SOCK_STREAM;
    std::vector<sockaddr_storage> addresses;
    for (const std::string& name : names) {
        addrinfo* found = nullptr;
        if (getaddrinfo(name.c_str(), std::to_string(arguments.port).c_str(), &hints, &found) != 0) {
            continue;
        }
        for (const addrinfo* each = found; each != nullptr; each = each->ai_next) {
            sockaddr_storage address = {};
            std::memcpy(&address, each->ai_addr, each->ai_addrlen);
            if (std::none_of(addresses.begin(), addresses.end(), [&](const sockaddr_storage& known) {
                    return std::memcmp(&known, &address, sizeof address) == 0;
                })) {
                addresses.push_back(address);
            }
        }
        freeaddrinfo(found);
    }
    return addresses;
}

// What is still missing to listen on an address that other machines reach; empty if nothing.
std::string missingOffLoopback(const Arguments& arguments) {
    if (!arguments.hasSecret && arguments.usersFile.empty()) {
        return "a secret or --users";
    }
    return arguments.service.tls || arguments.behindProxy ? "" : "--tls-cert and --tls-key, or --behind-proxy";
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
    return (arguments.service.tls ? "https://" : "http://") + name + ":" + std::to_string(port) +
           arguments.service.access.base;
}

// Raises the limit of descriptors to its hard limit, because thousands of connections need more than the usual soft
// limit. Returns for how many connections that is enough, when each of them opens a file or two and has a thread.
unsigned raiseDescriptorLimit() {
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return fewestConnections;
    }
    const rlimit raised = {limit.rlim_max, limit.rlim_max};
    const rlim_t most = setrlimit(RLIMIT_NOFILE, &raised) == 0 ? raised.rlim_cur : limit.rlim_cur;
    rlim_t room = most > ownDescriptors ? (most - ownDescriptors) / 3 : 0;
    if (geteuid() != 0 && getrlimit(RLIMIT_NPROC, &limit) == 0) {
        room = std::min(room, limit.rlim_cur / 2);
    }
    return static_cast<unsigned>(std::clamp<rlim_t>(room, fewestConnections, mostConnections));
}

// Reads the files that SIGHUP reads again. What was read before stays in use for a file that cannot be read. The result
// says in words which files those are and why; it is empty if there are none.
std::string readFiles(const Arguments& arguments) try {
    std::string errors;
    const auto note = [&errors](const std::string& error) {
        errors += errors.empty() || error.empty() ? error : "; " + error;
    };
    if (arguments.service.tls) {
        note(readCertificate(arguments.certificateFile, arguments.keyFile));
    }
    if (!arguments.usersFile.empty()) {
        note(readUsers(arguments.usersFile));
    }
    if (!arguments.logFile.empty()) {
        const int error = openLog(arguments.logFile);
        note(error == 0 ? "" : arguments.logFile + ": " + std::strerror(-error));
    }
    return errors;
} catch (const std::bad_alloc&) {
    return "out of memory";
}

std::string addSecret(Arguments& arguments) {
    std::string secret;
    std::string error = arguments.secretFile.empty() ? makeSecret(secret) : keepSecret(arguments.secretFile, secret);
    std::string& base = arguments.service.access.base;
    base += (base.ends_with('/') ? "" : "/") + secret + "/";
    return error;
}

bool hasTerminal() {
    const int terminal = open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (terminal >= 0) {
        close(terminal);
    }
    return terminal >= 0;
}

// Tells the service manager that the server is ready, if it asks for that (sd_notify(3)).
void notifyManager() {
    const char* name = std::getenv("NOTIFY_SOCKET");
    sockaddr_un manager = {};
    manager.sun_family = AF_UNIX;
    if (name == nullptr || std::strlen(name) >= sizeof manager.sun_path) {
        return;
    }
    std::strcpy(manager.sun_path, name);
    if (*name == '@') { // an abstract address
        manager.sun_path[0] = '\0';
    }
    const std::string_view message = "READY=1";
    const int sender = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sendto(sender, message.data(), message.size(), 0, reinterpret_cast<const sockaddr*>(&manager),
           static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + std::strlen(name)));
    close(sender);
}

void setPort(sockaddr_storage& address, std::uint16_t port) {
    reinterpret_cast<sockaddr_in6&>(address).sin6_port = htons(port); // at the same place for both families
}

// Listens on all of `addresses`, with the port that the first of them gets. Addresses that this machine does not have
// are taken out unless it has none of them. Returns 0 or a negated error number.
int listenOnEach(std::vector<sockaddr_storage>& addresses, std::vector<int>& listeners) {
    int error = 0;
    for (auto address = addresses.begin(); address != addresses.end();) {
        sockaddr_storage wanted = *address;
        if (!listeners.empty()) {
            setPort(wanted, portOf(listeners.front()));
        }
        const int listener = listenOn(reinterpret_cast<const sockaddr*>(&wanted), sizeof wanted);
        if (listener >= 0) {
            listeners.push_back(listener);
            ++address;
        } else if (listener == -EADDRINUSE || addresses.size() == 1) {
            error = listener;
            break;
        } else {
            address = addresses.erase(address);
        }
    }
    return error;
}

void closeAll(std::vector<int>& listeners) {
    for (const int listener : listeners) {
        close(listener);
    }
    listeners.clear();
}

// Like listenOnEach, but tries again when a port that is free for one address is taken for another.
int listenOnAll(std::vector<sockaddr_storage>& addresses, std::vector<int>& listeners) {
    int error = -EADDRINUSE;
    for (int trial = 0; trial < mostPortTrials && error == -EADDRINUSE; ++trial) {
        closeAll(listeners);
        error = listenOnEach(addresses, listeners);
    }
    return error;
}

} // namespace

int main(int argc, char* argv[]) {
    Arguments arguments;
    if (const int status = parseArguments(argc, argv, arguments); status >= 0) {
        return status;
    }
    ServiceOptions& service = arguments.service;
    std::vector<sockaddr_storage> addresses = resolveAddresses(arguments);
    if (addresses.empty()) {
        return complain("no such address: " + arguments.listen);
    }
    const bool isOffLoopback = !std::all_of(addresses.begin(), addresses.end(), isLoopback);
    if (isOffLoopback) {
        if (const std::string missing = missingOffLoopback(arguments); !missing.empty()) {
            return complainOfArgument("other machines reach " + arguments.listen + ", so this is missing: " + missing);
        }
    }
    if (const std::string error = readFiles(arguments); !error.empty()) {
        return complain(error);
    }
    if (const int error = openTree(arguments.directory, arguments.sync); error != 0) {
        return complain(std::string(arguments.directory) + ": " + std::strerror(-error));
    }
    if (arguments.hasSecret) {
        if (const std::string error = addSecret(arguments); !error.empty()) {
            return complain(error);
        }
    }
    mallopt(M_ARENA_MAX, arenas);
    service.access.hosts.push_back(arguments.listen);
    service.connections = raiseDescriptorLimit();
    if (isOffLoopback && !arguments.behindProxy) {
        service.connectionsOfOne = std::min(service.connections / 2, mostConnectionsOfOne);
    }
    if (geteuid() == 0 && !service.access.readOnly) {
        say("warning: root serves a directory that clients can change; another user or --read-only is safer");
    }

    // Blocked before the service's threads are made, so that the signals come to the descriptor.
    sigset_t awaited;
    sigemptyset(&awaited);
    sigaddset(&awaited, SIGINT);
    sigaddset(&awaited, SIGTERM);
    sigaddset(&awaited, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &awaited, nullptr);
    const bool isDetached = std::signal(SIGHUP, SIG_DFL) == SIG_IGN; // by nohup
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN); // a write beyond the limit of file sizes fails, and the server goes on
    const int signals = signalfd(-1, &awaited, SFD_CLOEXEC);

    std::vector<int> listeners;
    if (const int error = listenOnAll(addresses, listeners); error != 0) {
        return complain("cannot serve on " + arguments.listen + " port " + std::to_string(arguments.port) + ": " +
                        std::strerror(-error));
    }
    MHD_Daemon* daemon = startService(service);
    if (daemon == nullptr || signals < 0) {
        return complain(std::string("cannot serve: ") + std::strerror(errno));
    }
    const std::string url = baseUrl(arguments, addresses.front(), portOf(listeners.front()));
    if (url.size() > longestBaseUrl) {
        say("warning: kelvane_vfs takes no base URL of more than 127 characters");
    }
    std::puts(url.c_str());
    std::fflush(stdout);
    notifyManager();

    const bool endsWithTerminal = !isDetached && hasTerminal();
    // A terminal that is closed sends SIGHUP as well. Then the server stops, as other programs do.
    while (acceptConnections(daemon, listeners, service.connections, signals) == SIGHUP &&
           (!endsWithTerminal || hasTerminal())) {
        const std::string error = readFiles(arguments);
        say("read certificate, users and log file again" + (error.empty() ? "" : ", except for " + error));
    }
    closeAll(listeners);
    if (!stopService(daemon)) {
        std::_Exit(success);
    }
    return success;
}
