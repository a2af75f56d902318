#include "storage/response.h"

#include "storage/target.h"

#include <cerrno>
#include <memory>
#include <new>
#include <sys/socket.h>
#include <utility>

namespace {

thread_local Sent lastSent;

// Caches must not keep what is served, and browsers must not guess its type.
MHD_Response* withCommonHeaders(MHD_Response* response) {
    MHD_add_response_header(response, MHD_HTTP_HEADER_CACHE_CONTROL, "no-store");
    MHD_add_response_header(response, "X-Content-Type-Options", "nosniff");
    return response;
}

// Serves for all responses that are only their status. It exists from the start, so it can be sent when there is no
// memory left.
MHD_Response* const bareResponse = withCommonHeaders(emptyResponse());

// Judged by the query alone, because a request may not have been parsed when memory is short.
bool asksForContentOrAttributes(MHD_Connection* connection) {
    const char* action = MHD_lookup_connection_value(connection, MHD_GET_ARGUMENT_KIND, "action");
    return action == nullptr || action == nameOf(Action::props);
}

// The library may leave the connection of a failed body open; the client must not wait for the rest.
ssize_t breakOff(void* context, std::uint64_t, char*, std::size_t) {
    shutdown(static_cast<int>(reinterpret_cast<std::intptr_t>(context)), SHUT_RDWR);
    return MHD_CONTENT_READER_END_WITH_ERROR;
}

} // namespace

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

// Throws for null, because the library does not check for null when it adds headers.
MHD_Response* emptyResponse() {
    MHD_Response* response = MHD_create_response_from_buffer(0, nullptr, MHD_RESPMEM_PERSISTENT);
    if (response == nullptr) {
        throw std::bad_alloc();
    }
    return response;
}

Sent takeSent() {
    return std::exchange(lastSent, {});
}

MHD_Result sendResponse(MHD_Connection* connection, unsigned status, MHD_Response* response, std::uint64_t bytes) {
    if (response == nullptr) {
        throw std::bad_alloc();
    }
    lastSent = {status, bytes};
    const MHD_Result queued = MHD_queue_response(connection, status, withCommonHeaders(response));
    MHD_destroy_response(response);
    return queued;
}

MHD_Result sendStatus(MHD_Connection* connection, unsigned status) {
    lastSent = {status, 0};
    if (status < MHD_HTTP_INTERNAL_SERVER_ERROR || !asksForContentOrAttributes(connection)) {
        return MHD_queue_response(connection, status, bareResponse);
    }
    const int socket = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
    MHD_Response* response =
        MHD_create_response_from_callback(1, 1, breakOff, reinterpret_cast<void*>(std::intptr_t{socket}), nullptr);
    return response != nullptr ? sendResponse(connection, status, response, 0) : MHD_NO;
}

MHD_Result turnAway(MHD_Connection* connection, unsigned status) {
    MHD_Response* response = emptyResponse();
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONNECTION, "close");
    if (status == MHD_HTTP_UNAUTHORIZED) {
        MHD_add_response_header(response, MHD_HTTP_HEADER_WWW_AUTHENTICATE, "Basic realm=\"kelvane_storage\"");
    }
    return sendResponse(connection, status, response, 0);
}

MHD_Result sendJson(MHD_Connection* connection, Text json) {
    auto kept = std::make_unique<Text>(std::move(json));
    const std::uint64_t bytes = kept->size();
    MHD_Response* response = MHD_create_response_from_buffer_with_free_callback_cls(
        bytes, kept->data(), [](void* text) { delete static_cast<Text*>(text); }, kept.get());
    if (response != nullptr) {
        (void)kept.release();
        MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, "application/json");
    }
    return sendResponse(connection, MHD_HTTP_OK, response, bytes);
}
