#include "storage/contents.h"

#include "storage/replies.h"
#include "storage/response.h"
#include "storage/target.h"
#include "storage/tree.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr std::uint64_t largestCopiedReply = 1 << 18;

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
        return sendResponse(connection, MHD_HTTP_OK, response, range.length);
    }
    const std::string total = std::to_string(size);
    if (kind == RangeKind::unsatisfiable || range.length == 0) {
        MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_RANGE, ("bytes */" + total).c_str());
        return sendResponse(connection, MHD_HTTP_RANGE_NOT_SATISFIABLE, response, 0);
    }
    const std::string span =
        "bytes " + std::to_string(range.first) + "-" + std::to_string(range.first + range.length - 1) + "/" + total;
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_RANGE, span.c_str());
    return sendResponse(connection, MHD_HTTP_PARTIAL_CONTENT, response, range.length);
}

} // namespace

MHD_Result sendContents(MHD_Connection* connection, const std::string& path) {
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
