// The answer to a request: what the disk says, as a reply.
#pragma once

#include "storage/reply.h"
#include "storage/request.h"

// Opens the file that a request wants to write. The reply has no status when that has succeeded.
Reply openUpload(Request& request);

// Answers a request that is complete, for a write after openUpload. Throws std::bad_alloc when memory is short.
Reply answer(Request& request);

// The reply that is only a status from 400 on.
Reply refuse(const Request& request, unsigned status);
