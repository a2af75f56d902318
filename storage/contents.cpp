#include "storage/contents.h"

#include "storage/memory.h"
#include "storage/replies.h"
#include "storage/response.h"
#include "storage/target.h"
#include "storage/tree.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <fcntl.h>
#include <memory>
#include <new>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr std::uint64_t largestCopiedReply = 1 << 18;

// A part of a file, on the heap.
struct Copy {
    char* bytes;
    std::size_t size;
};

void freeCopy(void* context) {
    auto* copy = static_cast<Copy*>(context);
    BodyAllocator<char>().deallocate(copy->bytes, copy->size);
    delete copy;
}

// Up to `length` bytes of the file at `offset`. The response declares as many bytes as could be read, so its length is
// right even if the file becomes shorter at the same time. Null when the file cannot be read.
MHD_Response* copiedBody(int file, std::uint64_t offset, std::uint64_t& length) {
    std::unique_ptr<Copy, void (*)(void*)> copy(new Copy{nullptr, 0}, freeCopy);
    copy->bytes = BodyAllocator<char>().allocate(length);
    copy->size = length;
    std::uint64_t count = 0;
    while (count < length) {
        const ssize_t got = pread(file, copy->bytes + count, length - count, static_cast<off_t>(offset + count));
        if (got < 0 && errno != EINTR) {
            return nullptr;
        }
        if (got == 0) {
            break;
        }
        count += std::max<ssize_t>(got, 0);
    }
    length = count;
    MHD_Response* response =
        MHD_create_response_from_buffer_with_free_callback_cls(count, copy->bytes, freeCopy, copy.get());
    if (response == nullptr) {
        throw std::bad_alloc();
    }
    (void)copy.release();
    return response;
}

// A long body, read as it is sent. When the file becomes shorter meanwhile, the library's own sendfile would wait
// without end; here the response breaks off instead.
struct Stream {
    int file;
    std::uint64_t first;
    int socket;
};

ssize_t readStream(void* context, std::uint64_t position, char* buffer, std::size_t size) {
    const auto* stream = static_cast<const Stream*>(context);
    const ssize_t count = pread(stream->file, buffer, size, static_cast<off_t>(stream->first + position));
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
    giveMemoryBack(largestCopiedReply);
}

// Takes over `file`, which becomes -1.
MHD_Response* streamedBody(MHD_Connection* connection, int& file, const Range& range) {
    const int socket = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
    auto stream = std::make_unique<Stream>(Stream{file, range.first, socket});
    takeMemory(largestCopiedReply);
    MHD_Response* response =
        MHD_create_response_from_callback(range.length, largestCopiedReply, readStream, stream.get(), endStream);
    if (response == nullptr) {
        giveMemoryBack(largestCopiedReply);
        throw std::bad_alloc();
    }
    (void)stream.release();
    file = -1;
    return response;
}

// Answers with the file or the range that is asked for. `file` becomes -1 if the response has taken it over.
MHD_Result sendFile(MHD_Connection* connection, int& file, std::uint64_t size) {
    const char* header = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_RANGE);
    Range range = {};
    const RangeKind kind = parseRange(header, size, range);
    MHD_Response* response = nullptr;
    if (kind == RangeKind::unsatisfiable) {
        range.length = 0;
        response = emptyResponse();
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
    char span[80];
    if (range.length == 0) {
        std::snprintf(span, sizeof span, "bytes */%" PRIu64, size);
    } else {
        std::snprintf(span, sizeof span, "bytes %" PRIu64 "-%" PRIu64 "/%" PRIu64, range.first,
                      range.first + range.length - 1, size);
    }
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_RANGE, span);
    return sendResponse(connection, range.length == 0 ? MHD_HTTP_RANGE_NOT_SATISFIABLE : MHD_HTTP_PARTIAL_CONTENT,
                        response, range.length);
}

} // namespace

MHD_Result sendContents(MHD_Connection* connection, const std::string& path) {
    // The kind is checked before the file is opened, because opening a pipe or a device has an effect on it.
    struct stat st;
    if (const int result = statInTree(path, st); result != 0) {
        return sendStatus(connection, statusOf(result));
    }
    if (!S_ISREG(st.st_mode) && !S_ISDIR(st.st_mode)) {
        return sendStatus(connection, MHD_HTTP_FORBIDDEN);
    }
    int descriptor = openInTree(path, O_RDONLY | O_NONBLOCK | O_NOCTTY);
    if (descriptor < 0) {
        return sendStatus(connection, statusOf(descriptor));
    }
    const ClosedAtEnd closed(&descriptor);
    if (fstat(descriptor, &st) != 0) {
        return sendStatus(connection, statusOf(-errno));
    }
    if (S_ISREG(st.st_mode)) {
        return sendFile(connection, descriptor, st.st_size);
    }
    if (!S_ISDIR(st.st_mode)) {
        return sendStatus(connection, MHD_HTTP_FORBIDDEN);
    }
    Text listing;
    const int result = listingObject(std::exchange(descriptor, -1), path, listing);
    return result == 0 ? sendJson(connection, std::move(listing)) : sendStatus(connection, statusOf(result));
}
