#include "storage/response.h"

#include <cerrno>
#include <utility>

namespace {

thread_local Sent lastSent;

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

Sent takeSent() {
    return std::exchange(lastSent, {});
}

MHD_Result sendResponse(MHD_Connection* connection, unsigned status, MHD_Response* response, std::uint64_t bytes) {
    if (response == nullptr) {
        return MHD_NO;
    }
    lastSent = {status, bytes};
    if (status == MHD_HTTP_UNAUTHORIZED) {
        MHD_add_response_header(response, MHD_HTTP_HEADER_WWW_AUTHENTICATE, "Basic realm=\"kelvane_storage\"");
    }
    const MHD_Result queued = MHD_queue_response(connection, status, response);
    MHD_destroy_response(response);
    return queued;
}

MHD_Result sendStatus(MHD_Connection* connection, unsigned status) {
    return sendResponse(connection, status, MHD_create_response_from_buffer(0, nullptr, MHD_RESPMEM_PERSISTENT), 0);
}

MHD_Result sendJson(MHD_Connection* connection, std::string json) {
    auto* kept = new std::string(std::move(json));
    const std::uint64_t bytes = kept->size();
    MHD_Response* response = MHD_create_response_from_buffer_with_free_callback_cls(
        kept->size(), kept->data(), [](void* text) { delete static_cast<std::string*>(text); }, kept);
    if (response == nullptr) {
        delete kept;
    } else {
        MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, "application/json");
    }
    return sendResponse(connection, MHD_HTTP_OK, response, bytes);
}
