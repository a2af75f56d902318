#include "storage/certificate.h"

#include "storage/options.h"

#include <atomic>
#include <iterator>
#include <list>
#include <stdexcept>

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

gnutls_datum_t dataOf(std::string& text) {
    return {reinterpret_cast<unsigned char*>(text.data()), static_cast<unsigned>(text.size())};
}

} // namespace

void readCertificate(const std::string& certificateFile, const std::string& keyFile) {
    std::string chainText = readSettings(certificateFile, false);
    std::string keyText = readSettings(keyFile, true);
    const gnutls_datum_t chain = dataOf(chainText);
    const gnutls_datum_t key = dataOf(keyText);
    const auto check = [&](int result) {
        if (result < 0) {
            throw std::runtime_error(certificateFile + " and " + keyFile + ": " + gnutls_strerror(result));
        }
    };
    Certificate& made = certificates.emplace_back();
    check(gnutls_certificate_allocate_credentials(&made.pair));
    // This fails when the key is that of another certificate.
    check(gnutls_certificate_set_x509_key_mem2(made.pair, &chain, &key, GNUTLS_X509_FMT_PEM, nullptr, 0));
    check(gnutls_pcert_list_import_x509_raw(made.chain, &made.length, &chain, GNUTLS_X509_FMT_PEM, 0));
    check(gnutls_privkey_init(&made.key));
    check(gnutls_privkey_import_x509_raw(made.key, &key, GNUTLS_X509_FMT_PEM, nullptr, 0));
    current = &made;
}

int chooseCertificate(gnutls_session_t, const gnutls_datum_t*, int, const gnutls_pk_algorithm_t*, int,
                      gnutls_pcert_st** chain, unsigned* chainLength, gnutls_privkey_t* key) {
    Certificate* const chosen = current;
    *chain = chosen->chain;
    *chainLength = chosen->length;
    *key = chosen->key;
    return 0;
}
