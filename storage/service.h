// The HTTP side of the server: its certificate, and the life of a request.
#pragma once

#include "storage/options.h"

struct MHD_Daemon;

// Reads a certificate with its chain and its key, both PEM; connections that are made from then on use them. If
// something is wrong, that is thrown in words, and the certificate that was read before stays in use.
void readCertificate(const std::string& certificateFile, const std::string& keyFile);

// Starts to serve the opened tree to the connections that are handed over to the daemon, each with a thread of its own;
// null when that fails. One client address gets at most `connectionsOfOne`, or any number if that is 0.
MHD_Daemon* startService(const Options& options, unsigned connectionsOfOne);

// Closes the listeners and ends the service. Requests that have begun get five seconds, and new connections one to
// begin. If another server gets the listening sockets (`isReplaced`), all connections have a second for one more
// request, so that no client loses one. False when requests did not end: then only the end of the process ends them.
bool stopService(MHD_Daemon* daemon, std::vector<Descriptor>& listeners, bool isReplaced);
