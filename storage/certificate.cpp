#include "storage/certificate.h"

#include "storage/access.h"

#include <atomic>
#include <list>

namespace {

constexpr unsigned longestChain = 16;

struct Certificate {
    gnutls_pcert_st chain[longestChain];
    unsigned length = longestChain;
    gnutls_privkey_t key = nullptr;
};

// A handshake that has begun goes on with the certificate before, so no certificate is ever released. A renewal costs a
// few kilobytes.
std::list<Certificate>& certificates = *new std::list<Certificate>;
std::atomic<Certificate*> current;

gnutls_datum_t dataOf(std::string& text) {
    return {reinterpret_cast<unsigned char*>(text.data()), static_cast<unsigned>(text.size())};
}

// 0 when `key` belongs to the certificate, else a negative number of the TLS library.
int checkPair(const gnutls_datum_t& certificate, const gnutls_datum_t& key) {
    gnutls_certificate_credentials_t credentials = nullptr;
    if (const int error = gnutls_certificate_allocate_credentials(&credentials); error != 0) {
        return error;
    }
    const int result =
        gnutls_certificate_set_x509_key_mem2(credentials, &certificate, &key, GNUTLS_X509_FMT_PEM, nullptr, 0);
    gnutls_certificate_free_credentials(credentials);
    return result;
}

} // namespace

std::string readCertificate(const std::string& certificateFile, const std::string& keyFile) {
    std::string certificateText;
    std::string keyText;
    if (std::string error = readFile(certificateFile, false, certificateText); !error.empty()) {
        return error;
    }
    if (std::string error = readFile(keyFile, true, keyText); !error.empty()) {
        return error;
    }
    const gnutls_datum_t certificateData = dataOf(certificateText);
    const gnutls_datum_t keyData = dataOf(keyText);
    int error = checkPair(certificateData, keyData);
    Certificate* read = &certificates.emplace_back();
    if (error >= 0) {
        error = gnutls_pcert_list_import_x509_raw(read->chain, &read->length, &certificateData, GNUTLS_X509_FMT_PEM, 0);
    }
    if (error >= 0) {
        error = gnutls_privkey_init(&read->key);
    }
    if (error >= 0) {
        error = gnutls_privkey_import_x509_raw(read->key, &keyData, GNUTLS_X509_FMT_PEM, nullptr, 0);
    }
    if (error < 0) {
        certificates.pop_back();
        return certificateFile + " and " + keyFile + ": " + gnutls_strerror(error);
    }
    current = read;
    return "";
}

int chooseCertificate(gnutls_session_t, const gnutls_datum_t*, int, const gnutls_pk_algorithm_t*, int,
                      gnutls_pcert_st** chain, unsigned* chainLength, gnutls_privkey_t* key) {
    Certificate* chosen = current;
    *chain = chosen->chain;
    *chainLength = chosen->length;
    *key = chosen->key;
    return 0;
}
