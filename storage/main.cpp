// kelvane_storage: serves a local directory to kelvane_vfs.
#include "storage/access.h"
#include "storage/connections.h"
#include "storage/log.h"
#include "storage/options.h"
#include "storage/service.h"
#include "storage/tree.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <malloc.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace {
constexpr rlim_t ownDescriptors = 32;
constexpr rlim_t fewestConnections = 8;
constexpr rlim_t mostConnections = 16384;
constexpr unsigned mostConnectionsOfOne = 1024;
constexpr int arenas = 4; // of malloc, for all threads; each keeps some freed memory, and 64 MiB of addresses
constexpr std::size_t longestBaseUrl = 127; // what kelvane_vfs takes

// Raises the limit of descriptors to its hard limit, because thousands of connections need more than the usual soft
// limit. Returns for how many connections that is enough, when each of them opens a file or two and has a thread.
unsigned raiseDescriptorLimit() {
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit raised = {limit.rlim_max, limit.rlim_max};
    const rlim_t most = setrlimit(RLIMIT_NOFILE, &raised) == 0 ? raised.rlim_cur : limit.rlim_cur;
    rlim_t room = most > ownDescriptors ? (most - ownDescriptors) / 3 : 0;
    if (geteuid() != 0 && getrlimit(RLIMIT_NPROC, &limit) == 0) {
        room = std::min(room, limit.rlim_cur / 2);
    }
    return static_cast<unsigned>(std::clamp<rlim_t>(room, fewestConnections, mostConnections));
}

// Reads the files that SIGHUP reads again. For one that cannot be read, what was read before stays in use, and the
// result says why.
std::string readFiles(const Options& options) try {
    std::string errors;
    const auto attempt = [&errors](const std::string& file, const auto& read) {
        try {
            if (!file.empty()) {
                read();
            }
        } catch (const std::runtime_error& error) {
            errors.append(errors.empty() ? "" : "; ").append(error.what());
        }
    };
    attempt(options.certificateFile, [&] { readCertificate(options.certificateFile, options.keyFile); });
    attempt(options.usersFile, [&] { readUsers(options.usersFile); });
    attempt(options.logFile, [&] { openLog(options.logFile); });
    return errors;
} catch (const std::bad_alloc&) {
    return "out of memory";
}

bool hasTerminal() {
    return Descriptor(open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC)).number >= 0;
}

// Tells the service manager that the server is ready, if it asks for that (sd_notify(3)).
void notifyManager() {
    const char* name = std::getenv("NOTIFY_SOCKET");
    sockaddr_un manager = {.sun_family = AF_UNIX};
    if (name == nullptr || std::strlen(name) >= sizeof manager.sun_path) {
        return;
    }
    std::strcpy(manager.sun_path, name);
    manager.sun_path[0] = *name == '@' ? '\0' : *name; // an abstract address
    const std::string_view message = "READY=1";
    const Descriptor sender(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sendto(sender.number, message.data(), message.size(), 0, reinterpret_cast<const sockaddr*>(&manager),
           static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + std::strlen(name)));
}
} // namespace

int main(int argc, char* argv[]) try {
    Options options;
    if (const int status = parseOptions(argc, argv, options); status >= 0) {
        return status;
    }
    std::vector<Descriptor> listeners = inheritListeners();
    const bool isReplaced = !listeners.empty(); // at its end, by a server that gets the same sockets
    if (!isReplaced) {
        listeners = openListeners(options.listen, options.port);
    }
    if (const std::string errors = readFiles(options); !errors.empty()) {
        throw std::runtime_error(errors);
    }
    if (const int error = openTree(options.directory, options.sync); error != 0) {
        throw std::system_error(-error, std::generic_category(), options.directory);
    }
    if (!options.noSecret) {
        options.base += (options.base.ends_with('/') ? "" : "/") + takeSecret(options.secretFile) + "/";
    }
    const bool isTls = !options.certificateFile.empty();
    const bool isLocalOnly = std::all_of(listeners.begin(), listeners.end(), isLocal);
    const std::string missing = options.noSecret && options.usersFile.empty() ? "a secret or --users"
                                : !isTls && !options.behindProxy ? "--tls-cert and --tls-key, or --behind-proxy"
                                                                 : "";
    if (!isLocalOnly && !missing.empty()) {
        throw std::invalid_argument("other machines reach the address, so this is missing: " + missing);
    }
    // Over HTTPS the host has to be one of the certificate's.
    const std::string host = isTls && !options.hosts.empty() ? options.hosts.front() : "";
    const std::string url = (isTls ? "https:" : "http:") + authorityOf(listeners.front(), host) + options.base;
    if (url.size() > longestBaseUrl) {
        say("warning: kelvane_vfs takes no base URL of more than 127 characters");
    }
    if (geteuid() == 0 && !options.readOnly) {
        say("warning: root serves a directory that clients can change; another user or --read-only is safer");
    }
    options.hosts.insert(options.hosts.end(), options.listen.begin(), options.listen.end());
    mallopt(M_ARENA_MAX, arenas);
    const unsigned connections = raiseDescriptorLimit();

    // Blocked before the service's threads are made, so that the signals come to the descriptor.
    sigset_t awaited;
    sigemptyset(&awaited);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        sigaddset(&awaited, signal);
    }
    pthread_sigmask(SIG_BLOCK, &awaited, nullptr);
    const bool isDetached = std::signal(SIGHUP, SIG_DFL) == SIG_IGN; // by nohup
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN); // a write beyond the limit of file sizes fails, and the server goes on
    const Descriptor signals(signalfd(-1, &awaited, SFD_CLOEXEC));
    MHD_Daemon* daemon =
        startService(options, isLocalOnly || options.behindProxy ? 0 : std::min(connections / 2, mostConnectionsOfOne));
    if (daemon == nullptr || signals.number < 0) {
        throw std::system_error(errno, std::generic_category(), "cannot serve");
    }
    std::puts(url.c_str());
    std::fflush(stdout);
    notifyManager();

    const bool endsWithTerminal = !isDetached && hasTerminal();
    // A terminal that is closed sends SIGHUP as well. Then the server stops, as other programs do.
    while (acceptConnections(daemon, listeners, connections, signals.number) == SIGHUP &&
           (!endsWithTerminal || hasTerminal())) {
        const std::string error = readFiles(options);
        say("read certificate, users and log file again" + (error.empty() ? "" : ", except for " + error));
    }
    if (!stopService(daemon, listeners, isReplaced)) {
        std::_Exit(success);
    }
    return success;
} catch (const std::invalid_argument& error) {
    say(std::string(error.what()) + "; --help shows the usage");
    return wrongUsage;
} catch (const std::exception& error) {
    say(error.what());
    return failure;
}
