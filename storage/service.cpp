#include "storage/service.h"

#include "storage/connections.h"
#include "storage/log.h"
#include "storage/reply.h"

#include <atomic>
#include <chrono>
#include <climits>
#include <gnutls/abstract.h>
#include <list>
#include <thread>

namespace {
// The library clears all of it after each request, so it is no larger than the longest request lines need; half of it
// is the reading buffer.
constexpr std::size_t connectionMemory = 56UL * 1024;
constexpr std::size_t threadStack = 512UL * 1024;
// Longer than a libcurl client keeps an unused connection, so that none is closed when a client is about to use it.
constexpr unsigned idleSeconds = 150;
constexpr int stopWaits = 500; // of 10 ms
constexpr int takeOverWaits = 100;

enum class Stop { no, afterNext, now };

Options service;
std::atomic<Stop> stop = Stop::no;
std::atomic<unsigned> running = 0; // requests whose header is there and whose reply is not sent yet

// One request, from its request line to the end of its reply.
struct Exchange {
    std::string text; // path and query as they arrived
    bool hasBegun = false;
    Request request;
    Reply reply;
};

// C code calls it, so it must not throw: there is room for all headers.
MHD_Result readHeader(void* context, MHD_ValueKind, const char* key, const char* value) {
    static_cast<RequestHead*>(context)->headers.emplace_back(key != nullptr ? key : "", value != nullptr ? value : "");
    return MHD_YES;
}

// The header is there. A reply that is given now ends the connection and leaves the body unread, and the client may
// lose that reply. So only bodies whose end is in doubt and bodies that are too long are answered now. All other bodies
// are read, also those that are refused.
MHD_Result begin(MHD_Connection* connection, const char* method, const char* version, Exchange& exchange) {
    exchange.hasBegun = true;
    ++running;
    if (stop == Stop::now && phaseOf(connection) != Phase::stranger) {
        return MHD_NO;
    }
    RequestHead head = {method, exchange.text, version, {}};
    head.headers.reserve(MHD_get_connection_values(connection, MHD_HEADER_KIND, nullptr, nullptr));
    MHD_get_connection_values(connection, MHD_HEADER_KIND, readHeader, &head);
    exchange.request = judge(head, service);
    const Request& request = exchange.request;
    if (request.isDoubtful) {
        exchange.reply = refuse(request, request.refusal);
        return send(connection, exchange.reply);
    }
    if (request.admitted || phaseOf(connection) != Phase::stranger) {
        enter(connection, Phase::sending);
    }
    if (request.refusal == 0 && request.target.action == Action::write) {
        exchange.reply = openUpload(exchange.request);
    }
    return MHD_YES;
}

void takeBody(Request& request, std::string_view piece) {
    request.received += piece.size();
    if (request.received > largestBody && request.refusal == 0) {
        request.refusal = MHD_HTTP_CONTENT_TOO_LARGE;
    }
    if (request.refusal == 0 && request.file.number >= 0) {
        takeMemory(request.share, piece.size());
        request.body.reserve(request.declared); // of which the kernel gives only what is used
        request.body.append(piece);
    }
}

MHD_Result finish(MHD_Connection* connection, Exchange& exchange) {
    if (exchange.request.refusal != 0) {
        exchange.reply = refuse(exchange.request, exchange.request.refusal);
    } else if (exchange.reply.status == 0) {
        exchange.reply = answer(exchange.request);
    }
    exchange.reply.isLast |= stop != Stop::no;
    return send(connection, exchange.reply);
}

// Called once when the header is there, then with each piece of the body, then once more.
MHD_Result onRequest(void*, MHD_Connection* connection, const char*, const char* method, const char* version,
                     const char* data, std::size_t* size, void** context) {
    auto* exchange = static_cast<Exchange*>(*context);
    const std::string_view piece(data, std::exchange(*size, 0));
    if (exchange == nullptr) {
        report(MHD_HTTP_SERVICE_UNAVAILABLE, std::strerror(ENOMEM));
        return sendShortage(connection, nullptr);
    }
    const bool isLast = exchange->hasBegun && piece.empty();
    if (isLast && phaseOf(connection) == Phase::sending) {
        enter(connection, Phase::served);
    }
    try {
        if (!exchange->hasBegun) {
            return begin(connection, method, version, *exchange);
        }
        if (isLast && exchange->request.refusal != MHD_HTTP_SERVICE_UNAVAILABLE) {
            return finish(connection, *exchange);
        }
        takeBody(exchange->request, piece);
    } catch (const std::exception&) { // of which only std::bad_alloc is to be expected
        report(MHD_HTTP_SERVICE_UNAVAILABLE, std::strerror(ENOMEM));
        exchange->request = Request();
        exchange->request.refusal = MHD_HTTP_SERVICE_UNAVAILABLE;
    }
    return isLast ? sendShortage(connection, &exchange->reply) : MHD_YES;
}

void* onRequestLine(void*, const char* text, MHD_Connection*) try {
    return new Exchange{text};
} catch (const std::bad_alloc&) {
    return nullptr;
}

void onCompleted(void*, MHD_Connection* connection, void** context, MHD_RequestTerminationCode) {
    auto* exchange = static_cast<Exchange*>(*context);
    if (exchange != nullptr && exchange->hasBegun) {
        writeLog(MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS)->client_addr,
                 exchange->request, exchange->reply);
        --running;
    }
    delete exchange;
    *context = nullptr;
}

// Of the library's messages only this one is for the operator.
void onMessage(void*, const char* format, va_list) {
    if (std::string_view(format).starts_with("Failed to create a")) {
        report(MHD_HTTP_SERVICE_UNAVAILABLE, "no thread for a connection");
    }
}

// Paths are decoded here and not by the library, which would cut them at a NUL.
std::size_t keepEncoding(void*, MHD_Connection*, char* text) {
    return std::strlen(text);
}

struct Certificate {
    gnutls_pcert_st chain[16];
    unsigned length = std::size(decltype(chain){});
    gnutls_privkey_t key = nullptr;
    gnutls_certificate_credentials_t pair = nullptr;
};

// A handshake that has begun goes on with the certificate before, so none is ever released.
std::list<Certificate>& certificates = *new std::list<Certificate>;
std::atomic<Certificate*> current;

gnutls_datum_t dataOf(std::string& text) {
    return {reinterpret_cast<unsigned char*>(text.data()), static_cast<unsigned>(text.size())};
}

int chooseCertificate(gnutls_session_t, const gnutls_datum_t*, int, const gnutls_pk_algorithm_t*, int,
                      gnutls_pcert_st** chain, unsigned* chainLength, gnutls_privkey_t* key) {
    Certificate* const chosen = current;
    *chain = chosen->chain;
    *chainLength = chosen->length;
    *key = chosen->key;
    return 0;
}
} // namespace

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

MHD_Daemon* startService(const Options& options, unsigned connectionsOfOne) {
    service = options;
    const bool isTls = !options.certificateFile.empty();
    const unsigned flags = MHD_USE_THREAD_PER_CONNECTION | MHD_USE_POLL_INTERNAL_THREAD | MHD_USE_NO_LISTEN_SOCKET |
                           MHD_USE_ITC | MHD_USE_ERROR_LOG | (isTls ? unsigned{MHD_USE_TLS} : 0);
    char priorities[] = "NORMAL:-VERS-ALL:+VERS-TLS1.3:+VERS-TLS1.2";
    MHD_OptionItem tls[] = {{MHD_OPTION_HTTPS_CERT_CALLBACK, 0, reinterpret_cast<void*>(chooseCertificate)},
                            {MHD_OPTION_HTTPS_PRIORITIES, 0, priorities},
                            {MHD_OPTION_END, 0, nullptr}};
    // acceptConnections counts the connections. Before 0.9.78 the library stops for ever at a limit of its own.
    return MHD_start_daemon(
        flags, 0, nullptr, nullptr, onRequest, nullptr, MHD_OPTION_EXTERNAL_LOGGER, onMessage, nullptr,
        MHD_OPTION_NOTIFY_CONNECTION, onConnection, nullptr, MHD_OPTION_URI_LOG_CALLBACK, onRequestLine, nullptr,
        MHD_OPTION_NOTIFY_COMPLETED, onCompleted, nullptr, MHD_OPTION_UNESCAPE_CALLBACK, keepEncoding, nullptr,
        MHD_OPTION_CONNECTION_MEMORY_LIMIT, connectionMemory, MHD_OPTION_THREAD_STACK_SIZE, threadStack,
        MHD_OPTION_CONNECTION_LIMIT, UINT_MAX, MHD_OPTION_PER_IP_CONNECTION_LIMIT, connectionsOfOne,
        MHD_OPTION_CONNECTION_TIMEOUT, idleSeconds, MHD_OPTION_STRICT_FOR_CLIENT, 1, MHD_OPTION_SIGPIPE_HANDLED_BY_APP,
        1, MHD_OPTION_ARRAY, isTls ? tls : tls + 2, MHD_OPTION_END);
}

bool stopService(MHD_Daemon* daemon, std::vector<Descriptor>& listeners, bool isReplaced) {
    for (int waits = 0; waits < stopWaits; ++waits) {
        const bool takesOver = isReplaced && waits < takeOverWaits;
        stop = takesOver ? Stop::afterNext : Stop::now;
        listeners.clear(); // only now: who is refused a connection knows that the server stops
        const Clients clients = endSlowClients(true);
        if (clients.strangers + running == 0 && (!takesOver || clients.all == 0)) {
            MHD_stop_daemon(daemon);
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}
