// How a response is sent, and the status that an error becomes. Functions that return an MHD_Result return it for the
// library's request handler.
#pragma once

#include "storage/memory.h"

#include <cstdint>
#include <microhttpd.h>

// What became of a request, for the log.
struct Sent {
    unsigned status = 0; // 0 while nothing was sent
    std::uint64_t bytes = 0;
};

// What this thread has sent since the last call.
Sent takeSent();

// The HTTP status for a negated error number.
unsigned statusOf(int error);

// A response without a body, which the caller releases; std::bad_alloc is thrown when memory is short.
MHD_Response* emptyResponse();

// Sends `response`, whose body has `bytes` bytes, and releases it. For null, which the library returns when memory is
// short, it throws std::bad_alloc.
MHD_Result sendResponse(MHD_Connection* connection, unsigned status, MHD_Response* response, std::uint64_t bytes);

// A response that is only its status. The body is empty because clients take every body for file data. They take an
// empty body for the end of a file or an empty directory, and attributes that are refused for a file that is gone. So
// from status 500 on, the response to these three requests declares a body, and the connection ends before the body.
MHD_Result sendStatus(MHD_Connection* connection, unsigned status);

// Refuses a client without access: the response is only its status, and the connection ends with it.
MHD_Result turnAway(MHD_Connection* connection, unsigned status);

// Status 200 with a JSON object.
MHD_Result sendJson(MHD_Connection* connection, Text json);
