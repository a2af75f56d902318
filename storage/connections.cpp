#include "storage/connections.h"

#include "storage/log.h"
#include "storage/options.h"

#include <atomic>
#include <chrono>
#include <iterator>
#include <list>
#include <map>
#include <mutex>
#include <poll.h>
#include <stdexcept>
#include <sys/signalfd.h>
#include <sys/socket.h>

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::seconds;

constexpr seconds headerTime(30);
constexpr seconds headerTimeInCrowd(1);
constexpr seconds bodyTime(60);
constexpr int lookMilliseconds = 1000; // between two looks at the clients
constexpr int lookMillisecondsInCrowd = 50;

struct Client {
    std::atomic<Phase> phase = Phase::stranger;
    std::atomic<Clock::time_point> since = Clock::now(); // set before `phase`
};

// By socket: a connection that the library drops without a word counts only until its number is used again.
std::mutex clientsMutex;
std::map<int, Client> clients; // guarded by clientsMutex

std::size_t countClients() {
    const std::lock_guard lock(clientsMutex);
    return clients.size();
}

Client& clientOf(MHD_Connection* connection) {
    const auto* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
    return *static_cast<Client*>(info->socket_context);
}

// Returns 0 or a negated error number.
int acceptOne(MHD_Daemon* daemon, int listener) try {
    sockaddr_storage address = {};
    socklen_t length = sizeof address;
    auto* const place = reinterpret_cast<sockaddr*>(&address);
    Descriptor socket(resultOf(accept4(listener, place, &length, SOCK_NONBLOCK | SOCK_CLOEXEC)));
    if (socket.number < 0) {
        return socket.number;
    }
    {
        const std::lock_guard lock(clientsMutex);
        clients.erase(socket.number);
        clients.try_emplace(socket.number);
    }
    const int added = std::exchange(socket.number, -1); // the library closes it
    if (MHD_add_connection(daemon, added, place, length) == MHD_YES) {
        return 0;
    }
    const int error = errno == ENOMEM ? -ENOMEM : 0; // or the address has too many
    const std::lock_guard lock(clientsMutex);
    clients.erase(added);
    return error;
} catch (const std::bad_alloc&) {
    return -ENOMEM;
}

struct Certificate {
    gnutls_pcert_st chain[16];
    unsigned length = std::size(decltype(chain){});
    gnutls_privkey_t key = nullptr;
    gnutls_certificate_credentials_t pair = nullptr;
};

// A handshake that has begun goes on with the certificate before, so no certificate is ever released. A renewal costs a
// few kilobytes.
std::list<Certificate>& certificates = *new std::list<Certificate>;
std::atomic<Certificate*> current;

gnutls_datum_t dataOf(std::string& text) {
    return {reinterpret_cast<unsigned char*>(text.data()), static_cast<unsigned>(text.size())};
}

} // namespace

Clients endSlowClients(bool isCrowded) {
    const Clock::time_point now = Clock::now();
    Clients counted;
    const std::lock_guard lock(clientsMutex);
    for (const auto& [socket, client] : clients) {
        const Phase phase = client.phase;
        const bool isStranger = phase == Phase::stranger;
        const seconds time = !isStranger ? bodyTime : isCrowded ? headerTimeInCrowd : headerTime;
        ++counted.all;
        counted.strangers += isStranger ? 1 : 0;
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
        const bool isFull = countClients() >= most;
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

void readCertificate(const std::string& certificateFile, const std::string& keyFile) {
    std::string chainText = readSettings(certificateFile, false);
    std::string keyText = readSettings(keyFile, true);
    const gnutls_datum_t chain = dataOf(chainText);
    const gnutls_datum_t key = dataOf(keyText);
    const auto check = [&](int result) {
        if (result < 0) {
            throw std::runtime_error(certificateFile + " and " + keyFile + ": " + gnutls_strerror(result));
        }
    };
    Certificate& made = certificates.emplace_back();
    check(gnutls_certificate_allocate_credentials(&made.pair));
    // This fails when the key is that of another certificate.
    check(gnutls_certificate_set_x509_key_mem2(made.pair, &chain, &key, GNUTLS_X509_FMT_PEM, nullptr, 0));
    check(gnutls_pcert_list_import_x509_raw(made.chain, &made.length, &chain, GNUTLS_X509_FMT_PEM, 0));
    check(gnutls_privkey_init(&made.key));
    check(gnutls_privkey_import_x509_raw(made.key, &key, GNUTLS_X509_FMT_PEM, nullptr, 0));
    current = &made;
}

int chooseCertificate(gnutls_session_t, const gnutls_datum_t*, int, const gnutls_pk_algorithm_t*, int,
                      gnutls_pcert_st** chain, unsigned* chainLength, gnutls_privkey_t* key) {
    Certificate* const chosen = current;
    *chain = chosen->chain;
    *chainLength = chosen->length;
    *key = chosen->key;
    return 0;
}
