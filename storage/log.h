// What the server tells its operator: lines on standard error, and the log of requests, a line for each.
#pragma once

#include "storage/system.h"

struct Reply;
struct Request;
struct sockaddr;

void say(const std::string& text);

// Says that requests fail with a status, or (0) that clients wait; each at most once a minute. It needs no memory.
void report(unsigned status, const char* detail);

// Opens `file` ("-" is standard output) to append to it, or throws std::system_error. Called again, it opens the file
// anew, so that a log that was renamed is continued under its old name.
void openLog(const std::string& file);

// Writes a line if a log is open: time (UTC), address, user, action, path, status, bytes, and the new path of a rename.
// Names and paths are percent-encoded. A line that cannot be written is lost.
void writeLog(const sockaddr* client, const Request& request, const Reply& reply);
