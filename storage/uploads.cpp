#include "storage/uploads.h"

#include "storage/replies.h"
#include "storage/response.h"
#include "storage/tree.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <strings.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr std::uint64_t largestUpload = 1 << 20;
// What kelvane_vfs sends at most. Memory for more is taken only when it comes.
constexpr std::uint64_t usualUpload = 1 << 17;

struct Framing {
    const char* version;
    unsigned headers = 0; // that say where the body ends
    bool isDoubtful = false;
};

bool beginsWith(std::string_view name, const char* prefix) {
    return strncasecmp(name.data(), prefix, std::strlen(prefix)) == 0;
}

// The library ignores headers whose name it does not know. Among them are names with a blank behind them, and those
// that begin with the rest of a folded line.
MHD_Result lookAtHeader(void* context, MHD_ValueKind, const char* key, const char* value) {
    auto& framing = *static_cast<Framing*>(context);
    const std::string_view name = key != nullptr ? key : "";
    if (name.empty() || std::any_of(name.begin(), name.end(), [](char c) { return c <= ' ' || c >= 0x7f; })) {
        framing.isDoubtful = true;
    }
    if (beginsWith(name, MHD_HTTP_HEADER_CONTENT_LENGTH)) {
        ++framing.headers;
        framing.isDoubtful |= name.size() != std::strlen(MHD_HTTP_HEADER_CONTENT_LENGTH);
    } else if (beginsWith(name, MHD_HTTP_HEADER_TRANSFER_ENCODING)) {
        ++framing.headers;
        framing.isDoubtful |= name.size() != std::strlen(MHD_HTTP_HEADER_TRANSFER_ENCODING) || value == nullptr ||
                              strcasecmp(value, "chunked") != 0 ||
                              std::strcmp(framing.version, MHD_HTTP_VERSION_1_1) != 0;
    }
    return MHD_YES;
}

// Writes all of `body`, with one call unless the disk takes less. Returns 0 or a negated error number.
int writeBody(int file, std::string_view body, std::int64_t offset) {
    while (!body.empty()) {
        const ssize_t written = pwrite(file, body.data(), body.size(), offset);
        if (written < 0 && errno != EINTR) {
            return -errno;
        }
        body.remove_prefix(std::max<ssize_t>(written, 0));
        offset += std::max<ssize_t>(written, 0);
    }
    return 0;
}

} // namespace

unsigned judgeFraming(MHD_Connection* connection, const char* version, Upload& upload) {
    Framing framing = {version};
    MHD_get_connection_values(connection, MHD_HEADER_KIND, lookAtHeader, &framing);
    if (framing.isDoubtful || framing.headers > 1) {
        return MHD_HTTP_BAD_REQUEST;
    }
    const char* length = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_CONTENT_LENGTH);
    upload.declared = length != nullptr ? std::strtoull(length, nullptr, 10) : 0;
    return upload.declared > largestUpload ? MHD_HTTP_CONTENT_TOO_LARGE : 0;
}

unsigned beginUpload(const Target& target, Upload& upload) {
    upload.file = openForWritingInTree(target.path);
    return upload.file < 0 ? statusOf(upload.file) : 0;
}

unsigned takePiece(Upload& upload, std::string_view piece) {
    upload.received += piece.size();
    if (upload.received > largestUpload) {
        return MHD_HTTP_CONTENT_TOO_LARGE;
    }
    if (upload.file >= 0) {
        upload.body.reserve(std::min(upload.declared, usualUpload));
        upload.body.append(piece);
    }
    return 0;
}

MHD_Result endUpload(MHD_Connection* connection, const Target& target, Upload& upload) {
    const int written = writeBody(upload.file, upload.body, target.offset);
    struct stat st;
    const int finished = finishWriting(std::exchange(upload.file, -1), target.path, st);
    const int result = written != 0 ? written : finished;
    return result == 0 ? sendJson(connection, attributeObject(st)) : sendStatus(connection, statusOf(result));
}

void releaseUpload(Upload& upload) {
    if (upload.file >= 0) {
        close(std::exchange(upload.file, -1));
    }
    Text().swap(upload.body);
}
