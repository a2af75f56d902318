// The connections of the service: the sockets that listen for them, how they are accepted, and when they are ended.
#pragma once

#include "storage/system.h"

#include <microhttpd.h>

// A stranger has not shown yet that it has access; its time runs from the beginning of the connection. Of a client that
// sends, a request is under way. One that is served has no limit here; the library ends it when there is no traffic.
enum class Phase { stranger, sending, served };

struct Clients {
    unsigned all = 0;
    unsigned strangers = 0;
};

// The sockets that the service manager has opened (sd_listen_fds(3)); none if it has not.
std::vector<Descriptor> inheritListeners();

// Listens on all addresses of all `names`, with the same port; `port` "0" picks a free one. Addresses that this machine
// does not have are left out unless it has none of them. Throws std::runtime_error, in words.
std::vector<Descriptor> openListeners(const std::vector<std::string>& names, const std::string& port);

// True for a socket that only this machine reaches.
bool isLocal(const Descriptor& listener);

// Empty for a Unix socket.
std::string addressText(const sockaddr& address);

// "//HOST:PORT" for a URL that reaches the socket from this machine. HOST is `host`, or the socket's address if that is
// empty. For a Unix socket "//unix:PATH:", as nginx writes it.
std::string authorityOf(const Descriptor& listener, const std::string& host);

// Hands every connection that comes to `listeners` over to `daemon`, `most` at the same time (more wait in the kernel),
// and ends those that are too slow. Returns the number of the signal that `signals` (a signalfd) has brought.
int acceptConnections(MHD_Daemon* daemon, const std::vector<Descriptor>& listeners, unsigned most, int signals);

// Counts the clients, and shuts down those whose time is over (slow-loris). It is shorter while others wait.
Clients endSlowClients(bool isCrowded);

// The library calls it when a connection begins and when it ends.
void onConnection(void*, MHD_Connection* connection, void** context, MHD_ConnectionNotificationCode code);

void enter(MHD_Connection* connection, Phase phase);
Phase phaseOf(MHD_Connection* connection);
