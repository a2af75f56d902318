// The server's certificate and key for HTTPS.
#pragma once

#include <gnutls/abstract.h>
#include <string>

// Reads a certificate with its chain and its key, both PEM; connections that are made from then on use them. If
// something is wrong, that is thrown in words, and the certificate that was read before stays in use.
void readCertificate(const std::string& certificateFile, const std::string& keyFile);

// The callback for MHD_OPTION_HTTPS_CERT_CALLBACK: gives the certificate that was read last.
int chooseCertificate(gnutls_session_t session, const gnutls_datum_t* authorities, int authorityCount,
                      const gnutls_pk_algorithm_t* algorithms, int algorithmCount, gnutls_pcert_st** chain,
                      unsigned* chainLength, gnutls_privkey_t* key);
