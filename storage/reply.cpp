#include "storage/reply.h"

#include "storage/log.h"
#include "storage/request.h"
#include "storage/tree.h"

#include <sys/socket.h>

namespace {

constexpr std::uint64_t partSize = 1 << 18; // of what is read at once

// Caches must not keep what is served, and browsers must not guess its type.
MHD_Response* withCommonHeaders(MHD_Response* response) {
    if (response != nullptr) {
        MHD_add_response_header(response, MHD_HTTP_HEADER_CACHE_CONTROL, "no-store");
        MHD_add_response_header(response, "X-Content-Type-Options", "nosniff");
    }
    return response;
}

// Serves for all replies that are only their status. It exists from the start, so it can be sent when there is no
// memory left.
MHD_Response* const bareResponse =
    withCommonHeaders(MHD_create_response_from_buffer(0, nullptr, MHD_RESPMEM_PERSISTENT));

// The library calls it for each part of a body that is sent in parts.
ssize_t sendPart(void* context, std::uint64_t position, char* buffer, std::size_t size) {
    auto& reply = *static_cast<Reply*>(context);
    ssize_t count = 0;
    if (const auto* stream = std::get_if<Stream>(&reply.body)) {
        count = readFrom(stream->file, buffer, size, stream->first + position);
    } else if (auto* listing = std::get_if<Listing>(&reply.body)) {
        count = readListing(*listing, buffer, size);
        if (count == 0) {
            return MHD_CONTENT_READER_END_OF_STREAM;
        }
        reply.length += count;
    }
    if (count > 0) {
        return count;
    }
    if (const int error = static_cast<int>(count); error != 0) {
        report(statusOf(error), std::strerror(-error));
    }
    // The file has become shorter, or reading fails. The library may leave the connection of a failed body open; the
    // client must not wait for the rest.
    shutdown(reply.socket, SHUT_RDWR);
    return MHD_CONTENT_READER_END_WITH_ERROR;
}

MHD_Response* fromBytes(std::uint64_t size, const char* bytes) {
    return MHD_create_response_from_buffer(size, const_cast<char*>(bytes), MHD_RESPMEM_PERSISTENT);
}

MHD_Response* responseFor(Reply& reply) {
    if (const auto* text = std::get_if<std::string>(&reply.body)) {
        return fromBytes(text->size(), text->data());
    }
    if (const auto* copy = std::get_if<Copy>(&reply.body)) {
        return fromBytes(reply.length, copy->get());
    }
    if (std::holds_alternative<std::monostate>(reply.body)) {
        return fromBytes(0, "");
    }
    const std::uint64_t length = std::holds_alternative<Listing>(reply.body)     ? MHD_SIZE_UNKNOWN
                                 : std::holds_alternative<BrokenOff>(reply.body) ? 1
                                                                                 : reply.length;
    return MHD_create_response_from_callback(length, std::min(length, partSize), sendPart, &reply, nullptr);
}

} // namespace

MHD_Result send(MHD_Connection* connection, Reply& reply) {
    if (std::holds_alternative<std::monostate>(reply.body) && reply.headers.empty() && !reply.isLast) {
        return MHD_queue_response(connection, reply.status, bareResponse);
    }
    reply.socket = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
    MHD_Response* response = withCommonHeaders(responseFor(reply));
    if (response == nullptr) {
        return MHD_NO; // closes the connection
    }
    for (const Header& header : reply.headers) {
        MHD_add_response_header(response, header.name, header.value.c_str());
    }
    if (reply.isLast) {
        MHD_add_response_header(response, MHD_HTTP_HEADER_CONNECTION, "close");
    }
    const MHD_Result queued = MHD_queue_response(connection, reply.status, response);
    MHD_destroy_response(response);
    return queued;
}

MHD_Result sendShortage(MHD_Connection* connection, Reply& reply) {
    const char* action = MHD_lookup_connection_value(connection, MHD_GET_ARGUMENT_KIND, "action");
    reply = {.status = MHD_HTTP_SERVICE_UNAVAILABLE};
    if (action == nullptr || action == nameOf(Action::props)) {
        reply.body = BrokenOff();
    }
    return send(connection, reply);
}
