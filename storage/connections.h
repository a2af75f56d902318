// The connections of the service: how they are accepted, and when they are ended.
#pragma once

#include <cstdint>
#include <microhttpd.h>
#include <sys/socket.h>
#include <vector>

// A socket that listens on `address`, or a negated error number.
int listenOn(const sockaddr* address, socklen_t length);

// The port that a socket of `listenOn` got.
std::uint16_t portOf(int listener);

// Hands every connection that comes to `listeners` over to `daemon`, `most` at the same time (more wait in the kernel),
// and ends those that are too slow. Returns the number of the signal that `signals` (a signalfd) has brought.
int acceptConnections(MHD_Daemon* daemon, const std::vector<int>& listeners, unsigned most, int signals);

// The library calls it when a connection begins and when it ends.
void onConnection(void*, MHD_Connection* connection, void** context, MHD_ConnectionNotificationCode code);

// A client has limited time to send the header of a request, or a body that will be refused. These are called when the
// header has arrived, when such a body begins, and when the response was sent.
void headerArrived(MHD_Connection* connection);
void awaitRefusedBody(MHD_Connection* connection);
void awaitNextHeader(MHD_Connection* connection);
