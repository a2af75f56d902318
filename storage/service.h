// The HTTP side of the server.
#pragma once

#include "storage/access.h"

struct MHD_Daemon;

struct ServiceOptions {
    AccessOptions access;
    bool tls = false;              // with the certificate of storage/certificate.h
    unsigned connections = 8;      // at most, at once
    unsigned connectionsOfOne = 0; // from one address; 0 is any number
};

// Starts to serve the opened tree to the connections that are handed over to the daemon; null when that fails. Each
// connection has a thread of its own, so that a disk that is slow for one is slow for no other.
MHD_Daemon* startService(const ServiceOptions& options);

// Ends the service: no new request begins, and those that have begun get five seconds. False when some did not end, for
// example because they wait for the disk: then only the end of the process ends them.
bool stopService(MHD_Daemon* daemon);
