// The log of requests, one line for each.
#pragma once

#include "storage/reply.h"
#include "storage/request.h"

#include <sys/socket.h>

// Opens `file` ("-" is standard output) to append to it, or throws std::system_error. Called again, it opens the file
// anew, so that a log that was renamed is continued under its old name.
void openLog(const std::string& file);

// Writes a line if a log is open: time (UTC), address, user, action, path, status, bytes, and the new path of a rename.
// Names and paths are percent-encoded. A line that cannot be written is lost.
void writeLog(const sockaddr* client, const Request& request, const Reply& reply);
