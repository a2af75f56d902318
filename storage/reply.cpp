#include "storage/reply.h"

#include "storage/request.h"
#include "storage/tree.h"
#include "storage/trouble.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <sys/socket.h>

namespace {

constexpr std::size_t partSize = 1 << 18; // of what is read at once

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

// The library may leave the connection of a failed body open; the client must not wait for the rest.
ssize_t breakOff(const Reply& reply) {
    shutdown(reply.socket, SHUT_RDWR);
    return MHD_CONTENT_READER_END_WITH_ERROR;
}

// These are the library's callbacks for replies that are sent in parts.

ssize_t sendNothing(void* context, std::uint64_t, char*, std::size_t) {
    return breakOff(*static_cast<const Reply*>(context));
}

// When the file becomes shorter meanwhile, the library's own sendfile would wait without end; this breaks off instead.
ssize_t sendStream(void* context, std::uint64_t position, char* buffer, std::size_t size) {
    const auto& reply = *static_cast<const Reply*>(context);
    const auto& stream = std::get<Stream>(reply.body);
    const ssize_t count = readFrom(stream.file, buffer, size, stream.first + position);
    return count > 0 ? count : breakOff(reply);
}

ssize_t sendListing(void* context, std::uint64_t, char* buffer, std::size_t size) try {
    auto& reply = *static_cast<Reply*>(context);
    auto& listing = std::get<Listing>(reply.body);
    if (listing.taken == listing.text.size()) {
        if (listing.isComplete) {
            return MHD_CONTENT_READER_END_OF_STREAM;
        }
        if (const int error = continueListing(listing); error != 0) {
            report(isFailure(error) ? statusOf(error) : MHD_HTTP_INTERNAL_SERVER_ERROR, std::strerror(-error));
            return breakOff(reply);
        }
    }
    const std::size_t count = listing.text.copy(buffer, size, listing.taken);
    listing.taken += count;
    reply.length += count;
    return static_cast<ssize_t>(count);
} catch (const std::bad_alloc&) {
    return breakOff(*static_cast<const Reply*>(context));
}

MHD_Response* fromBytes(std::uint64_t size, const char* bytes) {
    return MHD_create_response_from_buffer(size, const_cast<char*>(bytes), MHD_RESPMEM_PERSISTENT);
}

MHD_Response* inParts(Reply& reply, std::uint64_t length, MHD_ContentReaderCallback callback) {
    return MHD_create_response_from_callback(length, std::min<std::uint64_t>(length, partSize), callback, &reply,
                                             nullptr);
}

MHD_Response* responseFor(Reply& reply) {
    if (const auto* text = std::get_if<std::string>(&reply.body); text != nullptr) {
        return fromBytes(text->size(), text->data());
    }
    if (const auto* copy = std::get_if<Copy>(&reply.body); copy != nullptr) {
        return fromBytes(reply.length, copy->bytes.get());
    }
    if (std::holds_alternative<Stream>(reply.body)) {
        return inParts(reply, reply.length, sendStream);
    }
    if (std::holds_alternative<Listing>(reply.body)) {
        return inParts(reply, MHD_SIZE_UNKNOWN, sendListing);
    }
    return std::holds_alternative<BrokenOff>(reply.body) ? inParts(reply, 1, sendNothing) : fromBytes(0, "");
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
