#include "storage/uploads.h"

#include "storage/replies.h"
#include "storage/response.h"
#include "storage/tree.h"

#include <cerrno>
#include <cstdlib>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr std::uint64_t largestUpload = 1 << 20;

} // namespace

unsigned beginUpload(MHD_Connection* connection, const Target& target, Upload& upload) {
    const char* length = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_CONTENT_LENGTH);
    upload.declared = length != nullptr ? std::strtoull(length, nullptr, 10) : 0;
    if (upload.declared > largestUpload) {
        return MHD_HTTP_CONTENT_TOO_LARGE;
    }
    upload.offset = target.offset;
    upload.file = openForWritingInTree(target.path);
    return upload.file < 0 ? statusOf(upload.file) : 0;
}

void storePiece(Upload& upload, const char* data, std::size_t size, unsigned& refusal) {
    upload.received += size;
    if (upload.received > largestUpload) {
        refusal = MHD_HTTP_CONTENT_TOO_LARGE;
    }
    while (size > 0 && refusal == 0 && upload.file >= 0) {
        const ssize_t written = pwrite(upload.file, data, size, upload.offset);
        if (written < 0 && errno != EINTR) {
            refusal = statusOf(-errno);
        } else if (written > 0) {
            data += written;
            size -= written;
            upload.offset += written;
        }
    }
}

bool hasVanished(MHD_Connection* connection, const Upload& upload) {
    const int socket = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
    char next = 0;
    return upload.received < upload.declared && recv(socket, &next, 1, MSG_PEEK | MSG_DONTWAIT) == 0;
}

MHD_Result endUpload(MHD_Connection* connection, const Upload& upload) {
    struct stat st;
    if (fstat(upload.file, &st) != 0) {
        return sendStatus(connection, MHD_HTTP_INTERNAL_SERVER_ERROR);
    }
    return sendJson(connection, attributeObject(st));
}

void releaseUpload(Upload& upload) {
    if (upload.file >= 0) {
        close(upload.file);
        upload.file = -1;
    }
}
