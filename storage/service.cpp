#include "storage/service.h"

#include "storage/access.h"
#include "storage/certificate.h"
#include "storage/connections.h"
#include "storage/contents.h"
#include "storage/replies.h"
#include "storage/request_log.h"
#include "storage/response.h"
#include "storage/target.h"
#include "storage/tree.h"
#include "storage/uploads.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <microhttpd.h>
#include <new>
#include <string_view>
#include <thread>
#include <unistd.h>
#include <utility>

namespace {

// The library clears all of it after each request, so it is no larger than the longest request lines need; half of it
// is the reading buffer.
constexpr std::size_t connectionMemory = 64UL * 1024;
constexpr std::size_t threadStack = 512UL * 1024;
// The library still counts a connection for a moment after its end.
constexpr unsigned spareConnections = 16;

// Longer than a libcurl client keeps an unused connection, so that none is closed when a client is about to use it.
constexpr unsigned idleSeconds = 150;

constexpr std::chrono::milliseconds stoppingWait(10);
constexpr int stoppingWaits = 500;

ServiceOptions service;
std::atomic<bool> stopping = false;
std::atomic<unsigned> running = 0; // requests whose header is there and whose response is not sent yet

// One request, from its request line to the end of its reply.
struct Exchange {
    std::string text; // path and query as they arrived
    Visitor visitor;
    Target target;
    bool judged = false;
    bool admitted = false;
    bool understood = false; // `target` is what the client asks for
    unsigned refusal = 0;    // HTTP status; 0 for a request that may go on
    Upload upload;
    Sent sent;
};

// For the changes whose reply says nothing but whether they were made.
MHD_Result sendOutcome(MHD_Connection* connection, int result) {
    return sendStatus(connection, result == 0 ? MHD_HTTP_NO_CONTENT : statusOf(result));
}

// For the changes that report the outcome in an envelope.
MHD_Result sendEnvelope(MHD_Connection* connection, int result) {
    switch (-result) {
    case 0:
        return sendJson(connection, statusEnvelope(MHD_HTTP_OK));
    case EEXIST:
    case ENOTEMPTY:
    case EISDIR:
        return sendJson(connection, statusEnvelope(MHD_HTTP_CONFLICT));
    default:
        return sendStatus(connection, statusOf(result));
    }
}

MHD_Result sendStatistics(MHD_Connection* connection) {
    const int descriptor = openInTree("", O_PATH);
    struct statvfs volume;
    const int result = descriptor < 0 ? descriptor : fstatvfs(descriptor, &volume) == 0 ? 0 : -errno;
    if (descriptor >= 0) {
        close(descriptor);
    }
    return result == 0 ? sendJson(connection, statisticsObject(volume)) : sendStatus(connection, statusOf(result));
}

MHD_Result answer(MHD_Connection* connection, const Target& target) {
    switch (target.action) {
    case Action::plain:
        return sendContents(connection, target.path);
    case Action::props: {
        struct stat st;
        const int result = statInTree(target.path, st);
        return result == 0 ? sendJson(connection, attributeObject(st)) : sendStatus(connection, statusOf(result));
    }
    case Action::statvfs:
        return sendStatistics(connection);
    case Action::create:
        return sendOutcome(connection, createInTree(target.path, target.mode));
    case Action::truncate:
        return sendOutcome(connection, truncateInTree(target.path, target.offset));
    case Action::mkdir:
        return sendEnvelope(connection, makeDirectoryInTree(target.path));
    case Action::unlink:
        return sendOutcome(connection, removeFileInTree(target.path));
    case Action::rmdir:
        return sendOutcome(connection, removeDirectoryInTree(target.path));
    case Action::rename:
        return sendEnvelope(connection, renameInTree(target.path, target.to, target.replace));
    case Action::write:
        break;
    }
    return sendStatus(connection, MHD_HTTP_METHOD_NOT_ALLOWED);
}

// Judges a request by its request line and headers, and opens the file of an upload. Returns 0, or the status that
// refuses the request.
unsigned judge(MHD_Connection* connection, const char* method, Exchange& exchange) {
    if (const unsigned refused = admit(connection, service.access, exchange.text, exchange.visitor); refused != 0) {
        return refused;
    }
    exchange.admitted = true;
    if (const int malformed = parseTarget(exchange.text, service.access.base, exchange.target); malformed != 0) {
        return malformed;
    }
    exchange.understood = true;
    const Action action = exchange.target.action;
    const bool isUpload = std::strcmp(method, MHD_HTTP_METHOD_PUT) == 0;
    const bool isHead = std::strcmp(method, MHD_HTTP_METHOD_HEAD) == 0;
    const bool isGet = std::strcmp(method, MHD_HTTP_METHOD_GET) == 0;
    if (action == Action::write ? !isUpload : !isGet && (!isHead || isChange(action))) {
        return MHD_HTTP_METHOD_NOT_ALLOWED;
    }
    if (exchange.visitor.readOnly && isChange(action)) {
        return MHD_HTTP_FORBIDDEN;
    }
    return isUpload ? beginUpload(exchange.target, exchange.upload) : 0;
}

// Called once when the header is there, then with each piece of the body, then once more. A response that is given at
// the first call ends the connection and leaves the body unread, and the client may lose that response. So only bodies
// whose end is in doubt and bodies that are too long are answered there. All other bodies are read, also those that are
// refused.
MHD_Result handle(MHD_Connection* connection, const char* method, const char* version, std::string_view piece,
                  Exchange& exchange) {
    const bool isFirst = !exchange.judged;
    const bool isLast = !isFirst && piece.empty();
    const bool wasRefused = exchange.refusal != 0;
    try {
        if (isFirst) {
            exchange.judged = true;
            headerArrived(connection);
            ++running;
            if (stopping) {
                return MHD_NO;
            }
            if (const unsigned refusal = judgeFraming(connection, version, exchange.upload); refusal != 0) {
                return sendStatus(connection, refusal);
            }
            exchange.refusal = judge(connection, method, exchange);
        } else if (isLast && wasRefused) {
            return exchange.admitted || exchange.refusal >= MHD_HTTP_INTERNAL_SERVER_ERROR
                       ? sendStatus(connection, exchange.refusal)
                       : turnAway(connection, exchange.refusal);
        } else if (isLast) {
            return exchange.upload.file >= 0 ? endUpload(connection, exchange.target, exchange.upload)
                                             : answer(connection, exchange.target);
        } else if (!wasRefused) {
            exchange.refusal = takePiece(exchange.upload, piece);
        }
    } catch (const std::bad_alloc&) {
        exchange.refusal = MHD_HTTP_SERVICE_UNAVAILABLE;
        if (isLast) {
            return sendStatus(connection, exchange.refusal);
        }
    }
    if (exchange.refusal != 0 && !wasRefused) {
        releaseUpload(exchange.upload);
        awaitRefusedBody(connection);
    }
    return MHD_YES;
}

MHD_Result onRequest(void*, MHD_Connection* connection, const char*, const char* method, const char* version,
                     const char* data, std::size_t* size, void** context) {
    auto* exchange = static_cast<Exchange*>(*context);
    if (exchange == nullptr) {
        return sendStatus(connection, MHD_HTTP_SERVICE_UNAVAILABLE);
    }
    const MHD_Result result = handle(connection, method, version, {data, std::exchange(*size, 0)}, *exchange);
    if (const Sent sent = takeSent(); sent.status != 0) {
        exchange->sent = sent;
    }
    return result;
}

void* onRequestLine(void*, const char* text, MHD_Connection*) {
    try {
        return new Exchange{text};
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

void onCompleted(void*, MHD_Connection* connection, void** context, MHD_RequestTerminationCode) {
    auto* exchange = static_cast<Exchange*>(*context);
    if (exchange != nullptr && exchange->judged) {
        releaseUpload(exchange->upload);
        if (isLogging()) {
            const bool isUpload = exchange->target.action == Action::write;
            writeLog({MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS)->client_addr,
                      exchange->visitor.user, exchange->understood ? &exchange->target : nullptr, exchange->sent.status,
                      isUpload ? exchange->upload.received : exchange->sent.bytes});
        }
        awaitNextHeader(connection);
        --running;
    }
    delete exchange;
    *context = nullptr;
}

// Paths are decoded here and not by the library, which would cut them at a NUL.
std::size_t keepEncoding(void*, MHD_Connection*, char* text) {
    return std::strlen(text);
}

} // namespace

MHD_Daemon* startService(const ServiceOptions& options) {
    service = options;
    unsigned flags =
        MHD_USE_THREAD_PER_CONNECTION | MHD_USE_POLL_INTERNAL_THREAD | MHD_USE_NO_LISTEN_SOCKET | MHD_USE_ITC;
    const char* priorities = "NORMAL:-VERS-ALL:+VERS-TLS1.3:+VERS-TLS1.2";
    MHD_OptionItem tls[] = {
        {MHD_OPTION_HTTPS_CERT_CALLBACK, 0, reinterpret_cast<void*>(chooseCertificate)},
        {MHD_OPTION_HTTPS_PRIORITIES, 0, const_cast<char*>(priorities)},
        {MHD_OPTION_END, 0, nullptr},
    };
    if (service.tls) {
        flags |= MHD_USE_TLS;
    } else {
        tls[0] = {MHD_OPTION_END, 0, nullptr};
    }
    return MHD_start_daemon(
        flags, 0, nullptr, nullptr, onRequest, nullptr, MHD_OPTION_NOTIFY_CONNECTION, onConnection, nullptr,
        MHD_OPTION_URI_LOG_CALLBACK, onRequestLine, nullptr, MHD_OPTION_NOTIFY_COMPLETED, onCompleted, nullptr,
        MHD_OPTION_UNESCAPE_CALLBACK, keepEncoding, nullptr, MHD_OPTION_CONNECTION_MEMORY_LIMIT, connectionMemory,
        MHD_OPTION_THREAD_STACK_SIZE, threadStack, MHD_OPTION_CONNECTION_LIMIT, service.connections + spareConnections,
        MHD_OPTION_PER_IP_CONNECTION_LIMIT, service.connectionsOfOne, MHD_OPTION_CONNECTION_TIMEOUT, idleSeconds,
        MHD_OPTION_STRICT_FOR_CLIENT, 1, MHD_OPTION_SIGPIPE_HANDLED_BY_APP, 1, MHD_OPTION_ARRAY, tls, MHD_OPTION_END);
}

bool stopService(MHD_Daemon* daemon) {
    stopping = true;
    for (int waits = 0; running != 0; ++waits) {
        if (waits == stoppingWaits) {
            return false;
        }
        std::this_thread::sleep_for(stoppingWait);
    }
    MHD_stop_daemon(daemon);
    return true;
}
