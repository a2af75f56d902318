// The connections of the service: how they are accepted, the certificate that they show, and when they are ended.
#pragma once

#include "storage/system.h"

#include <gnutls/abstract.h>
#include <microhttpd.h>

// A stranger has not shown yet that it has access; its time runs from the beginning of the connection. Of a client that
// sends, a request is under way. One that is served has no limit here; the library ends it when there is no traffic.
enum class Phase { stranger, sending, served };

struct Clients {
    unsigned all = 0;
    unsigned strangers = 0;
};

// Hands every connection that comes to `listeners` over to `daemon`, `most` at the same time (more wait in the kernel),
// and ends those that are too slow. Returns the number of the signal that `signals` (a signalfd) has brought.
int acceptConnections(MHD_Daemon* daemon, const std::vector<Descriptor>& listeners, unsigned most, int signals);

// Counts the clients, and shuts down those whose time is over (slow-loris). It is shorter while others wait.
Clients endSlowClients(bool isCrowded);

// The library calls it when a connection begins and when it ends.
void onConnection(void*, MHD_Connection* connection, void** context, MHD_ConnectionNotificationCode code);

void enter(MHD_Connection* connection, Phase phase);
Phase phaseOf(MHD_Connection* connection);

// Reads a certificate with its chain and its key, both PEM; connections that are made from then on use them. If
// something is wrong, that is thrown in words, and the certificate that was read before stays in use.
void readCertificate(const std::string& certificateFile, const std::string& keyFile);

// The callback for MHD_OPTION_HTTPS_CERT_CALLBACK: gives the certificate that was read last.
int chooseCertificate(gnutls_session_t session, const gnutls_datum_t* authorities, int authorityCount,
                      const gnutls_pk_algorithm_t* algorithms, int algorithmCount, gnutls_pcert_st** chain,
                      unsigned* chainLength, gnutls_privkey_t* key);
