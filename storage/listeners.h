// The sockets that listen for clients.
#pragma once

#include "storage/system.h"

// The sockets that the service manager has opened (sd_listen_fds(3)); none if it has not.
std::vector<Descriptor> inheritListeners();

// Listens on all addresses of all `names`, with the same port; `port` "0" picks a free one. Addresses that this machine
// does not have are left out unless it has none of them. Throws std::runtime_error, in words.
std::vector<Descriptor> openListeners(const std::vector<std::string>& names, const std::string& port);

// True for a socket that only this machine reaches.
bool isLocal(const Descriptor& listener);

// "//HOST:PORT" for a URL that reaches the socket from this machine. HOST is `host`, or the socket's address if that is
// empty. For a Unix socket "//unix:PATH:", as nginx writes it.
std::string authorityOf(const Descriptor& listener, const std::string& host);
