#include "storage/certificate.h"

#include "storage/settings.h"

#include <atomic>
#include <iterator>
#include <list>

namespace {

struct Certificate {
    gnutls_pcert_st chain[16];
    unsigned length = std::size(decltype(chain){});
    gnutls_privkey_t key = nullptr;
    gnutls_certificate_credentials_t pair = nullptr;
};

// A handshake that has begun goes on with the certificate before, so no certificate is ever released. A renewal costs a
// few kilobytes.
std::list<Certificate>& certificates = *new std::list<Certificate>;
std::atomic<Certificate*> current;

// 0, or a negative number of the TLS library, for example when the key is that of another certificate.
int import(const gnutls_datum_t& chain, const gnutls_datum_t& key, Certificate& certificate) {
    int error = gnutls_certificate_allocate_credentials(&certificate.pair);
    if (error >= 0) {
        error = gnutls_certificate_set_x509_key_mem2(certificate.pair, &chain, &key, GNUTLS_X509_FMT_PEM, nullptr, 0);
    }
    if (error >= 0) {
        error =
            gnutls_pcert_list_import_x509_raw(certificate.chain, &certificate.length, &chain, GNUTLS_X509_FMT_PEM, 0);
    }
    if (error >= 0) {
        error = gnutls_privkey_init(&certificate.key);
    }
    return error < 0 ? error : gnutls_privkey_import_x509_raw(certificate.key, &key, GNUTLS_X509_FMT_PEM, nullptr, 0);
}

gnutls_datum_t dataOf(std::string& text) {
    return {reinterpret_cast<unsigned char*>(text.data()), static_cast<unsigned>(text.size())};
}

} // namespace

std::string readCertificate(const std::string& certificateFile, const std::string& keyFile) {
    std::string chain;
    std::string key;
    std::string error = readSettings(certificateFile, false, chain);
    error = error.empty() ? readSettings(keyFile, true, key) : error;
    if (!error.empty()) {
        return error;
    }
    Certificate* certificate = &certificates.emplace_back();
    if (const int result = import(dataOf(chain), dataOf(key), *certificate); result < 0) {
        return certificateFile + " and " + keyFile + ": " + gnutls_strerror(result);
    }
    current = certificate;
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
