// The log of requests, one line for each.
#pragma once

#include "storage/target.h"

#include <cstdint>
#include <string>
#include <sys/socket.h>

struct LogEntry {
    const sockaddr* client;
    std::string_view user; // empty for nobody
    const Target* target;  // null for a request that was refused before it was understood
    unsigned status;       // 0 for a request that was never answered
    std::uint64_t bytes;   // of the reply's or the upload's body
};

// Opens `file` ("-" is standard output) to append to it; 0 or a negated error number. Called again, it opens the file
// anew, so that a log that was renamed is continued under its old name.
int openLog(const std::string& file);

// True once a log is open.
bool isLogging();

// Writes a line: time (UTC), address, user, action, path, status, bytes, and the new path of a rename. Names and paths
// are percent-encoded. A line that cannot be written is lost.
void writeLog(const LogEntry& entry);
