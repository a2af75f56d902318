// The body of a request, which is the data of a write. It is collected and written at once. So nothing is written of an
// incomplete body, and two bodies for the same place do not mix.
#pragma once

#include "storage/memory.h"
#include "storage/target.h"

#include <cstdint>
#include <microhttpd.h>
#include <string_view>

struct Upload {
    int file = -1;              // open while an upload runs
    std::uint64_t declared = 0; // the body's length; 0 when it comes in chunks
    std::uint64_t received = 0;
    Text body;
};

// Checks the headers that say where the body ends. Returns 0; 400 when they leave doubt, because the rest of the body
// could pass for a request of its own; 413 when the body is too long. Such a refusal has to end the connection.
unsigned judgeFraming(MHD_Connection* connection, const char* version, Upload& upload);

// Opens the file of an upload; 0, or the status that refuses it.
unsigned beginUpload(const Target& target, Upload& upload);

// Takes a piece of a body; if the body belongs to no upload, its bytes are only counted. Returns 0, or the status that
// refuses it.
unsigned takePiece(Upload& upload, std::string_view piece);

// Writes a complete body, and answers with the file's attributes after it.
MHD_Result endUpload(MHD_Connection* connection, const Target& target, Upload& upload);

// Closes the file and drops the body.
void releaseUpload(Upload& upload);
