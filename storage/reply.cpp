#include "storage/reply.h"

#include "storage/log.h"
#include "storage/tree.h"

#include <sys/socket.h>

namespace {
constexpr std::uint64_t partSize = 1 << 18; // of what is read at once, and what is read before it is sent

// Caches must not keep what is served, and browsers must not guess its type.
MHD_Response* withCommonHeaders(MHD_Response* response) {
    if (response != nullptr) {
        MHD_add_response_header(response, MHD_HTTP_HEADER_CACHE_CONTROL, "no-store");
        MHD_add_response_header(response, "X-Content-Type-Options", "nosniff");
    }
    return response;
}

// For all replies that are only their status. It exists from the start, so it can be sent when no memory is left.
MHD_Response* const bareResponse =
    withCommonHeaders(MHD_create_response_from_buffer(0, nullptr, MHD_RESPMEM_PERSISTENT));

// The library calls it for each part of a body.
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
    if (count < 0) {
        report(statusOf(static_cast<int>(count)), std::strerror(static_cast<int>(-count)));
    }
    // The file has become shorter, or reading fails. The library may leave the connection of a failed body open; the
    // client must not wait for the rest.
    shutdown(reply.socket, SHUT_RDWR);
    return MHD_CONTENT_READER_END_WITH_ERROR;
}

MHD_Response* responseFor(Reply& reply) {
    if (auto* text = std::get_if<std::string>(&reply.body)) {
        return MHD_create_response_from_buffer(text->size(), text->data(), MHD_RESPMEM_PERSISTENT);
    }
    if (const auto* copy = std::get_if<Copy>(&reply.body)) {
        return MHD_create_response_from_buffer(reply.length, copy->get(), MHD_RESPMEM_PERSISTENT);
    }
    const std::uint64_t length = std::holds_alternative<Listing>(reply.body)     ? MHD_SIZE_UNKNOWN
                                 : std::holds_alternative<BrokenOff>(reply.body) ? 1
                                                                                 : reply.length;
    return MHD_create_response_from_callback(length, std::min(length, partSize), sendPart, &reply, nullptr);
}

// The reply that refuses a request for an error of the disk.
Reply refuseFor(const Request& request, int error) {
    // A mount that was cut off says of its root that it is not there, and of open files that they may not be used.
    const int cause = isFailure(error) || !isTreeGone() ? error : -EIO;
    if (isFailure(cause)) {
        report(statusOf(cause), std::strerror(-cause));
    }
    return refuse(request, statusOf(cause));
}

Reply jsonReply(std::string text) {
    const std::uint64_t length = text.size();
    return {.status = MHD_HTTP_OK,
            .length = length,
            .headers = {{MHD_HTTP_HEADER_CONTENT_TYPE, "application/json"}},
            .body = std::move(text)};
}

// `json` is the body if the result is 0 or positive, and without one the status says all.
Reply replyFor(const Request& request, int result, std::string json = "") {
    return result < 0     ? refuseFor(request, result)
           : json.empty() ? Reply{.status = MHD_HTTP_NO_CONTENT}
                          : jsonReply(std::move(json));
}

Reply envelope(const Request& request, int result) {
    const bool isInTheWay = result == -EEXIST || result == -ENOTEMPTY || result == -EISDIR;
    return replyFor(request, isInTheWay ? 0 : result, statusEnvelope(isInTheWay ? MHD_HTTP_CONFLICT : MHD_HTTP_OK));
}

Reply statistics(const Request& request) {
    struct stat st;
    struct statvfs volume = {};
    const Descriptor root = lookUp("", st);
    const int result = root.number < 0 ? root.number : resultOf(fstatvfs(root.number, &volume));
    return replyFor(request, result, statisticsObject(volume));
}

Reply listing(Request& request, Descriptor directory) {
    takeMemory(request.share, listingMemory);
    Listing made;
    if (const int error = beginListing(std::move(directory), request.target.path, made); error != 0) {
        return refuseFor(request, error);
    }
    Reply reply = jsonReply(made.isComplete ? std::move(made.text) : "");
    if (!made.isComplete) {
        reply.body = std::move(made);
    }
    return reply;
}

// The file or the range that is asked for. A short one is read at once and declared as long as it was, even if the file
// becomes shorter at the same time.
Reply content(Request& request, Descriptor file, std::uint64_t size) {
    Range range = {};
    const bool isPart = parseRange(request.range, size, range);
    Reply reply = {.status = MHD_HTTP_OK,
                   .headers = {{MHD_HTTP_HEADER_CONTENT_TYPE, "application/octet-stream"},
                               {MHD_HTTP_HEADER_ACCEPT_RANGES, "bytes"}}};
    takeMemory(request.share, std::min(range.length, partSize));
    if (range.length > partSize) {
        reply.body = Stream{std::move(file), range.first};
    } else {
        auto& copy = reply.body.emplace<Copy>(std::make_unique_for_overwrite<char[]>(range.length));
        const ssize_t count = readFrom(file, copy.get(), range.length, range.first);
        if (count < 0) {
            return refuseFor(request, static_cast<int>(count));
        }
        range.length = count;
    }
    reply.length = range.length;
    if (isPart) {
        const bool isEmpty = range.length == 0;
        const std::string last = std::to_string(range.first + range.length - 1);
        const std::string span = isEmpty ? "*" : std::to_string(range.first) + "-" + last;
        reply.status = isEmpty ? MHD_HTTP_RANGE_NOT_SATISFIABLE : MHD_HTTP_PARTIAL_CONTENT;
        reply.headers.push_back({MHD_HTTP_HEADER_CONTENT_RANGE, "bytes " + span + "/" + std::to_string(size)});
    }
    return reply;
}

Reply plainRead(Request& request) {
    struct stat st;
    Descriptor opened = openInTree(request.target.path, O_RDONLY, st);
    return opened.number < 0     ? refuseFor(request, opened.number)
           : S_ISDIR(st.st_mode) ? listing(request, std::move(opened))
                                 : content(request, std::move(opened), st.st_size);
}
} // namespace

Reply openUpload(Request& request) {
    struct stat st;
    request.file = openInTree(request.target.path, O_WRONLY, st);
    return request.file.number < 0 ? refuseFor(request, request.file.number) : Reply();
}

Reply answer(Request& request) {
    const Target& target = request.target;
    struct stat st = {};
    int result = 0;
    switch (target.action) {
    case Action::plain:
        return plainRead(request);
    case Action::statvfs:
        return statistics(request);
    case Action::props:
        result = lookUp(target.path, st).number;
        break;
    case Action::write:
        result = writeInTree(std::move(request.file), target.path, request.body, *target.offset, st);
        break;
    case Action::create:
        return replyFor(request, createInTree(target.path, target.mode));
    case Action::truncate:
        return replyFor(request, truncateInTree(target.path, *target.offset));
    case Action::unlink:
        return replyFor(request, removeInTree(target.path, 0));
    case Action::rmdir:
        return replyFor(request, removeInTree(target.path, AT_REMOVEDIR));
    case Action::mkdir:
        return envelope(request, makeDirectoryInTree(target.path));
    case Action::rename:
        return envelope(request, renameInTree(target.path, *target.to, target.replace));
    }
    return result < 0 ? refuseFor(request, result) : jsonReply(attributeObject(st));
}

Reply refuse(const Request& request, unsigned status) {
    Reply reply = {.status = status, .isLast = !request.admitted};
    const Action action = request.target.action;
    if (status >= MHD_HTTP_INTERNAL_SERVER_ERROR && (action == Action::plain || action == Action::props)) {
        reply.body = BrokenOff();
    }
    if (status == MHD_HTTP_UNAUTHORIZED) {
        reply.headers.push_back({MHD_HTTP_HEADER_WWW_AUTHENTICATE, "Basic realm=\"kelvane_storage\""});
    }
    return reply;
}

MHD_Result send(MHD_Connection* connection, Reply& reply) {
    const auto* text = std::get_if<std::string>(&reply.body);
    if (text != nullptr && text->empty() && reply.headers.empty() && !reply.isLast) {
        return MHD_queue_response(connection, reply.status, bareResponse);
    }
    reply.socket = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
    MHD_Response* response = withCommonHeaders(responseFor(reply));
    if (response == nullptr) {
        return MHD_NO; // closes the connection
    }
    for (const auto& [name, value] : reply.headers) {
        MHD_add_response_header(response, name, value.c_str());
    }
    if (reply.isLast) {
        MHD_add_response_header(response, MHD_HTTP_HEADER_CONNECTION, "close");
    }
    const MHD_Result queued = MHD_queue_response(connection, reply.status, response);
    MHD_destroy_response(response);
    return queued;
}

MHD_Result sendShortage(MHD_Connection* connection, Reply* reply) {
    const char* action = MHD_lookup_connection_value(connection, MHD_GET_ARGUMENT_KIND, "action");
    const bool isBrokenOff = action == nullptr || action == nameOf(Action::props);
    if (reply == nullptr) {
        return isBrokenOff ? MHD_NO : MHD_queue_response(connection, MHD_HTTP_SERVICE_UNAVAILABLE, bareResponse);
    }
    *reply = {.status = MHD_HTTP_SERVICE_UNAVAILABLE};
    if (isBrokenOff) {
        reply->body = BrokenOff();
    }
    return send(connection, *reply);
}
