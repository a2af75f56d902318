#include "storage/service.h"

#include "storage/replies.h"
#include "storage/target.h"
#include "storage/tree.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <microhttpd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr std::uint64_t largestUpload = 1 << 20;
constexpr std::uint64_t largestCopiedReply = 1 << 18;
// The library clears all of it after each request, so it is no larger than the longest request lines need; half of it
// is the reading area.
constexpr std::size_t connectionMemory = 64UL * 1024;
constexpr unsigned listenBacklog = 1024;

// Longer than a libcurl client keeps an unused connection, so that none is closed under a client about to use
// it.
constexpr unsigned idleSeconds = 150;

ServiceOptions service;

// One request, from its request line to the end of its reply.
struct Exchange {
    std::string text; // path and query as they arrived
    Target target;
    bool judged = false;
    unsigned refusal = 0;       // HTTP status; 0 for a request that may go on
    int file = -1;              // of an upload
    std::uint64_t declared = 0; // its length; 0 when it comes in chunks
    std::uint64_t received = 0;
};

unsigned statusOf(int error) {
    switch (-error) {
    case ENOENT:
    case ENOTDIR:
    case EXDEV:
    case ELOOP:
    case ENAMETOOLONG:
        return MHD_HTTP_NOT_FOUND;
    case EACCES:
    case EPERM:
    case EROFS:
    case EISDIR:
    case ENXIO:
    case ETXTBSY:
        return MHD_HTTP_FORBIDDEN;
    case EEXIST:
    case ENOTEMPTY:
    case EBUSY:
        return MHD_HTTP_CONFLICT;
    case EINVAL:
        return MHD_HTTP_BAD_REQUEST;
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
        return MHD_HTTP_INSUFFICIENT_STORAGE;
    case EMFILE:
    case ENFILE:
    case ENOMEM:
        return MHD_HTTP_SERVICE_UNAVAILABLE;
    default:
        return MHD_HTTP_INTERNAL_SERVER_ERROR;
    }
}

MHD_Result send(MHD_Connection* connection, unsigned status, MHD_Response* response) {
    if (response == nullptr) {
        return MHD_NO;
    }
    const MHD_Result queued = MHD_queue_response(connection, status, response);
    MHD_destroy_response(response);
    return queued;
}

// A reply that is only its status. The body is empty because readers take whatever body comes for file data.
MHD_Result sendStatus(MHD_Connection* connection, unsigned status) {
    return send(connection, status, MHD_create_response_from_buffer(0, nullptr, MHD_RESPMEM_PERSISTENT));
}

MHD_Result sendJson(MHD_Connection* connection, std::string json) {
    auto* kept = new std::string(std::move(json));
    MHD_Response* response = MHD_create_response_from_buffer_with_free_callback_cls(
        kept->size(), kept->data(), [](void* text) { delete static_cast<std::string*>(text); }, kept);
    if (response == nullptr) {
        delete kept;
    } else {
        MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, "application/json");
    }
    return send(connection, MHD_HTTP_OK, response);
}

// For the changes whose reply says nothing but whether they were made.
MHD_Result sendOutcome(MHD_Connection* connection, int result) {
    return sendStatus(connection, result == 0 ? MHD_HTTP_NO_CONTENT : statusOf(result));
}

// For the changes that report in an envelope what stands in their way.
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

// Up to `length` bytes of the file at `offset` on the heap: what is there now is what the reply declares,
// also when somebody cuts the file short meanwhile.
MHD_Response* copiedBody(int file, std::uint64_t offset, std::uint64_t& length) {
    auto* bytes = static_cast<char*>(std::malloc(length));
    std::uint64_t count = 0;
    while (bytes != nullptr && count < length) {
        const ssize_t got = pread(file, bytes + count, length - count, static_cast<off_t>(offset + count));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            std::free(bytes);
            bytes = nullptr;
        }
        if (got <= 0) {
            break;
        }
        count += got;
    }
    close(file);
    length = count;
    return bytes != nullptr ? MHD_create_response_from_buffer(count, bytes, MHD_RESPMEM_MUST_FREE) : nullptr;
}

// A long body, read as it is sent. The library's own sendfile would wait without end for a file that somebody has cut
// short; here the reply breaks off instead.
struct Stream {
    int file;
    std::uint64_t first;
    int socket;
};

ssize_t readStream(void* context, std::uint64_t position, char* area, std::size_t size) {
    const auto* stream = static_cast<const Stream*>(context);
    const ssize_t count = pread(stream->file, area, size, static_cast<off_t>(stream->first + position));
    if (count > 0) {
        return count;
    }
    // The library may leave the connection of a failed body open; the client must not wait for the rest.
    shutdown(stream->socket, SHUT_RDWR);
    return MHD_CONTENT_READER_END_WITH_ERROR;
}

void endStream(void* context) {
    auto* stream = static_cast<Stream*>(context);
    close(stream->file);
    delete stream;
}

MHD_Response* streamedBody(MHD_Connection* connection, int file, const Range& range) {
    const int socket = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
    auto* stream = new Stream{file, range.first, socket};
    MHD_Response* response =
        MHD_create_response_from_callback(range.length, largestCopiedReply, readStream, stream, endStream);
    if (response == nullptr) {
        endStream(stream);
    }
    return response;
}

MHD_Result sendFile(MHD_Connection* connection, int file, std::uint64_t size) {
    const char* header = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_RANGE);
    Range range = {};
    const RangeKind kind = parseRange(header, size, range);
    MHD_Response* response = nullptr;
    if (kind == RangeKind::unsatisfiable) {
        close(file);
        response = MHD_create_response_from_buffer(0, nullptr, MHD_RESPMEM_PERSISTENT);
    } else if (range.length <= largestCopiedReply) {
        response = copiedBody(file, range.first, range.length);
    } else {
        response = streamedBody(connection, file, range);
    }
    if (response == nullptr) {
        return sendStatus(connection, MHD_HTTP_INTERNAL_SERVER_ERROR);
    }
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, "application/octet-stream");
    MHD_add_response_header(response, MHD_HTTP_HEADER_ACCEPT_RANGES, "bytes");
    if (kind == RangeKind::whole) {
        return send(connection, MHD_HTTP_OK, response);
    }
    const std::string total = std::to_string(size);
    if (kind == RangeKind::unsatisfiable || range.length == 0) {
        MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_RANGE, ("bytes */" + total).c_str());
        return send(connection, MHD_HTTP_RANGE_NOT_SATISFIABLE, response);
    }
    const std::string span =
        "bytes " + std::to_string(range.first) + "-" + std::to_string(range.first + range.length - 1) + "/" + total;
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_RANGE, span.c_str());
    return send(connection, MHD_HTTP_PARTIAL_CONTENT, response);
}

// A plain read: the listing of a directory, the content of a file.
MHD_Result sendContent(MHD_Connection* connection, const std::string& path) {
    // Looked at before it is opened, because opening a pipe or a device does something to it.
    struct stat st;
    if (const int result = statInTree(path, st); result != 0) {
        return sendStatus(connection, statusOf(result));
    }
    if (!S_ISREG(st.st_mode) && !S_ISDIR(st.st_mode)) {
        return sendStatus(connection, MHD_HTTP_FORBIDDEN);
    }
    const int descriptor = openInTree(path, O_RDONLY | O_NONBLOCK | O_NOCTTY);
    if (descriptor < 0) {
        return sendStatus(connection, statusOf(descriptor));
    }
    if (fstat(descriptor, &st) == 0 && S_ISREG(st.st_mode)) {
        return sendFile(connection, descriptor, st.st_size);
    }
    if (!S_ISDIR(st.st_mode)) {
        close(descriptor);
        return sendStatus(connection, MHD_HTTP_FORBIDDEN);
    }
    std::string listing;
    const int result = listingObject(descriptor, path, listing);
    return result == 0 ? sendJson(connection, std::move(listing)) : sendStatus(connection, statusOf(result));
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

int openForWriting(const std::string& path) {
    const int descriptor = openInTree(path, O_WRONLY | O_NONBLOCK | O_NOCTTY);
    struct stat st;
    if (descriptor >= 0 && (fstat(descriptor, &st) != 0 || !S_ISREG(st.st_mode))) {
        close(descriptor);
        return -EPERM;
    }
    return descriptor;
}

int truncateInTree(const std::string& path, std::int64_t size) {
    const int file = openForWriting(path);
    if (file < 0) {
        return file;
    }
    const int result = ftruncate(file, size) == 0 ? 0 : -errno;
    close(file);
    return result;
}

MHD_Result answer(MHD_Connection* connection, const Target& target) {
    switch (target.action) {
    case Action::plain:
        return sendContent(connection, target.path);
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

// The file of an upload, opened before its body is asked for; the status that refuses it otherwise, or 0.
unsigned beginUpload(MHD_Connection* connection, Exchange& exchange) {
    const char* length = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_CONTENT_LENGTH);
    exchange.declared = length != nullptr ? std::strtoull(length, nullptr, 10) : 0;
    if (exchange.declared > largestUpload) {
        return MHD_HTTP_CONTENT_TOO_LARGE;
    }
    exchange.file = openForWriting(exchange.target.path);
    return exchange.file < 0 ? statusOf(exchange.file) : 0;
}

// Writes a piece of an upload where it belongs; after the first failure the rest of the body is only read.
void storePiece(Exchange& exchange, const char* data, std::size_t size) {
    exchange.received += size;
    if (exchange.received > largestUpload) {
        exchange.refusal = MHD_HTTP_CONTENT_TOO_LARGE;
    }
    while (size > 0 && exchange.refusal == 0 && exchange.file >= 0) {
        const ssize_t written = pwrite(exchange.file, data, size, exchange.target.offset);
        if (written < 0 && errno != EINTR) {
            exchange.refusal = statusOf(-errno);
        } else if (written > 0) {
            data += written;
            size -= written;
            exchange.target.offset += written;
        }
    }
}

// The library does not hear of a client's end that comes together with the last bytes, and would keep the connection
// and the file until the connection's time is over.
bool hasVanished(MHD_Connection* connection, const Exchange& exchange) {
    const int socket = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
    char next = 0;
    return exchange.received < exchange.declared && recv(socket, &next, 1, MSG_PEEK | MSG_DONTWAIT) == 0;
}

MHD_Result endUpload(MHD_Connection* connection, const Exchange& exchange) {
    struct stat st;
    if (fstat(exchange.file, &st) != 0) {
        return sendStatus(connection, MHD_HTTP_INTERNAL_SERVER_ERROR);
    }
    return sendJson(connection, attributeObject(st));
}

// Judges a request by its line and headers, and opens the file of an upload: 0, or the status that refuses
// it.
unsigned judge(MHD_Connection* connection, const char* method, Exchange& exchange) {
    const int malformed = parseTarget(exchange.text, service.prefix, exchange.target);
    if (malformed != 0) {
        return malformed;
    }
    const Action action = exchange.target.action;
    const bool isUpload = std::strcmp(method, MHD_HTTP_METHOD_PUT) == 0;
    const bool isHead = std::strcmp(method, MHD_HTTP_METHOD_HEAD) == 0;
    const bool isGet = std::strcmp(method, MHD_HTTP_METHOD_GET) == 0;
    if (action == Action::write ? !isUpload : !isGet && (!isHead || isChange(action))) {
        return MHD_HTTP_METHOD_NOT_ALLOWED;
    }
    if (service.readOnly && isChange(action)) {
        return MHD_HTTP_FORBIDDEN;
    }
    return isUpload ? beginUpload(connection, exchange) : 0;
}

// Called once when the headers are there, then with each piece of the body, then once more. A reply that is
// given at the first call ends the connection, so only those go out then that spare a client its upload.
MHD_Result onRequest(void*, MHD_Connection* connection, const char*, const char* method, const char*, const char* data,
                     std::size_t* size, void** context) {
    auto& exchange = *static_cast<Exchange*>(*context);
    const bool isFirst = !exchange.judged;
    if (isFirst) {
        exchange.judged = true;
        exchange.refusal = judge(connection, method, exchange);
    }
    if (exchange.refusal != 0 && (isFirst ? *method == 'P' : *size == 0)) {
        return sendStatus(connection, exchange.refusal);
    }
    if (isFirst) {
        return MHD_YES;
    }
    if (*size > 0) {
        storePiece(exchange, data, *size);
        *size = 0;
        return hasVanished(connection, exchange) ? MHD_NO : MHD_YES;
    }
    return exchange.file >= 0 ? endUpload(connection, exchange) : answer(connection, exchange.target);
}

void* onRequestLine(void*, const char* text, MHD_Connection*) {
    auto* exchange = new Exchange;
    exchange->text = text;
    return exchange;
}

void onCompleted(void*, MHD_Connection*, void** context, MHD_RequestTerminationCode) {
    auto* exchange = static_cast<Exchange*>(*context);
    if (exchange != nullptr && exchange->file >= 0) {
        close(exchange->file);
    }
    delete exchange;
    *context = nullptr;
}

// Paths are decoded here and not by the library, which would cut them at a NUL.
std::size_t keepEncoding(void*, MHD_Connection*, char* text) {
    return std::strlen(text);
}

} // namespace

MHD_Daemon* startService(const ServiceOptions& options, const sockaddr* address) {
    service = options;
    unsigned flags = MHD_USE_EPOLL_INTERNAL_THREAD | MHD_USE_ITC | MHD_USE_TURBO;
    if (address->sa_family == AF_INET6) {
        flags |= MHD_USE_IPv6;
    }
    MHD_OptionItem tls[] = {
        {MHD_OPTION_HTTPS_MEM_CERT, 0, service.certificate.data()},
        {MHD_OPTION_HTTPS_MEM_KEY, 0, service.key.data()},
        {MHD_OPTION_END, 0, nullptr},
    };
    if (service.certificate.empty()) {
        tls[0] = {MHD_OPTION_END, 0, nullptr};
    } else {
        flags |= MHD_USE_TLS;
    }
    MHD_OptionItem pool[] = {
        {MHD_OPTION_THREAD_POOL_SIZE, static_cast<intptr_t>(service.threads), nullptr},
        {MHD_OPTION_END, 0, nullptr},
    };
    if (service.threads < 2) {
        pool[0] = {MHD_OPTION_END, 0, nullptr};
    }
    return MHD_start_daemon(
        flags, 0, nullptr, nullptr, onRequest, nullptr, MHD_OPTION_SOCK_ADDR, address, MHD_OPTION_URI_LOG_CALLBACK,
        onRequestLine, nullptr, MHD_OPTION_NOTIFY_COMPLETED, onCompleted, nullptr, MHD_OPTION_UNESCAPE_CALLBACK,
        keepEncoding, nullptr, MHD_OPTION_CONNECTION_MEMORY_LIMIT, connectionMemory, MHD_OPTION_CONNECTION_LIMIT,
        service.connections, MHD_OPTION_CONNECTION_TIMEOUT, idleSeconds, MHD_OPTION_LISTEN_BACKLOG_SIZE, listenBacklog,
        MHD_OPTION_SIGPIPE_HANDLED_BY_APP, 1, MHD_OPTION_ARRAY, pool, MHD_OPTION_ARRAY, tls, MHD_OPTION_END);
}

std::uint16_t servicePort(MHD_Daemon* daemon) {
    return MHD_get_daemon_info(daemon, MHD_DAEMON_INFO_BIND_PORT)->port;
}

void stopService(MHD_Daemon* daemon) {
    MHD_stop_daemon(daemon);
}
