// The body of a write: where it goes, and how much of it has come.
#pragma once

#include "storage/target.h"

#include <cstddef>
#include <cstdint>
#include <microhttpd.h>

struct Upload {
    int file = -1;              // open while an upload runs
    std::int64_t offset = 0;    // of the next byte in the file
    std::uint64_t declared = 0; // the body's length; 0 when it comes in chunks
    std::uint64_t received = 0;
};

// Opens the file of an upload, before its body is asked for; 0, or the status that refuses it.
unsigned beginUpload(MHD_Connection* connection, const Target& target, Upload& upload);

// Writes a piece of the body where it belongs, unless `refusal` (an HTTP status, 0 for none) says that the body is only
// read. A failure sets `refusal`.
void storePiece(Upload& upload, const char* data, std::size_t size, unsigned& refusal);

// True when the client has closed the connection before the whole body came. The library does not hear of an end that
// comes together with the last bytes, and would keep the connection and the file until the connection's time is over.
bool hasVanished(MHD_Connection* connection, const Upload& upload);

// Answers an upload whose body is complete.
MHD_Result endUpload(MHD_Connection* connection, const Upload& upload);

// Closes the file.
void releaseUpload(Upload& upload);
