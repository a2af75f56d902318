// How a response is sent, and the status that an error becomes. Functions that return an MHD_Result return it for the
// library's request handler.
#pragma once

#include <microhttpd.h>
#include <string>

// The HTTP status for a negated error number.
unsigned statusOf(int error);

// Sends `response` and releases it; MHD_NO for null.
MHD_Result sendResponse(MHD_Connection* connection, unsigned status, MHD_Response* response);

// A response that is only its status. The body is empty because readers take whatever body comes for file data.
MHD_Result sendStatus(MHD_Connection* connection, unsigned status);

// Status 200 with a JSON object.
MHD_Result sendJson(MHD_Connection* connection, std::string json);
