// The answer to a request: what the disk says, as a value, and how it is sent.
#pragma once

#include "storage/json.h"
#include "storage/request.h"

#include <microhttpd.h>
#include <variant>

using Copy = std::unique_ptr<char[]>; // a part of a file that has been read
// A part of a file that is read while it is sent.
struct Stream {
    Descriptor file;
    std::uint64_t first;
};

// A body is declared, and the connection ends before it. A refusal without a body would look like an empty file or an
// empty directory, and refused attributes like a file that is gone.
struct BrokenOff {};

struct Reply {
    unsigned status = 0;      // 0 while there is no answer
    bool isLast = false;      // the connection ends with it
    std::uint64_t length = 0; // of the body; for a listing what has been sent of it
    int socket = -1;          // of the connection, once it is sent
    std::vector<std::pair<const char*, std::string>> headers = {};
    std::variant<std::string, Copy, Stream, Listing, BrokenOff> body = {};
};

// Opens the file that a request wants to write. The reply has no status when that has succeeded.
Reply openUpload(Request& request);

// Answers a request that is complete, for a write after openUpload. Throws std::bad_alloc when memory is short.
Reply answer(Request& request);

// The reply that is only a status from 400 on.
Reply refuse(const Request& request, unsigned status);

// Queues `reply`, which has to stay there until the library has completed the request.
MHD_Result send(MHD_Connection* connection, Reply& reply);

// Sends 503 for a request of which perhaps only the query is known. What has to be broken off is only closed without a
// `reply`, for which there was no memory.
MHD_Result sendShortage(MHD_Connection* connection, Reply* reply);
