#include "storage/access.h"

#include "storage/log.h"

#include <arpa/inet.h>
#include <array>
#include <atomic>
#include <crypt.h>
#include <gnutls/crypto.h>
#include <map>
#include <memory>
#include <microhttpd.h>
#include <mutex>
#include <sstream>
#include <sys/file.h>
#include <sys/stat.h>

namespace {
constexpr std::size_t secretLength = 22;
constexpr std::string_view base64url = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

using Digest = std::array<unsigned char, 32>; // of a password, with the key of this process

struct User {
    std::string hash;            // empty where the password is plain
    std::optional<Digest> known; // of the right password, once a request has brought it
    bool readOnly = false;
};

std::mutex usersMutex;
std::map<std::string, User> users;  // guarded by usersMutex; empty where nobody needs a name
std::mutex hashingMutex;            // one at a time: strangers can ask for it, and it takes megabytes
std::atomic<unsigned> turns = 0;    // of requests that wait for hashingMutex or have it
constexpr unsigned mostTurns = 256; // more requests with wrong passwords would take all connections

void endTurn(unsigned number) {
    turns -= number != 0 ? 1 : 0;
}

template <std::size_t length> std::array<unsigned char, length> randomBytes() {
    std::array<unsigned char, length> random;
    if (gnutls_rnd(GNUTLS_RND_KEY, random.data(), random.size()) < 0) {
        throw std::runtime_error("no random numbers are available");
    }
    return random;
}

Digest digestOf(std::string_view password) {
    static const auto key = randomBytes<sizeof(Digest)>();
    Digest digest = {};
    gnutls_hmac_fast(GNUTLS_MAC_SHA256, key.data(), key.size(), password.data(), password.size(), digest.data());
    return digest;
}

bool fits(const std::string& password, const std::string& hash) {
    const auto data = std::make_unique<crypt_data>(); // 32 KiB
    errno = 0;
    const char* result = crypt_rn(password.c_str(), hash.c_str(), data.get(), sizeof *data);
    if (result == nullptr && errno == ENOMEM) { // the password may be right
        throw std::bad_alloc();
    }
    return result != nullptr && hash == result && password.find('\0') == std::string::npos;
}

std::string makeSecret() {
    auto random = randomBytes<secretLength>();
    random.back() &= 0x30; // the last of 22 characters carries the last two of 128 bits
    std::string secret;
    for (const unsigned char byte : random) {
        secret += base64url[byte % base64url.size()];
    }
    return secret;
}

// Decodes base64; empty if it is none.
std::string decode(std::string_view text) {
    const gnutls_datum_t encoded = {reinterpret_cast<unsigned char*>(const_cast<char*>(text.data())),
                                    static_cast<unsigned>(text.size())};
    gnutls_datum_t decoded = {};
    if (text.empty() || gnutls_base64_decode2(&encoded, &decoded) != 0) {
        return "";
    }
    std::string result(reinterpret_cast<char*>(decoded.data), decoded.size);
    gnutls_free(decoded.data);
    return result;
}

// Empty, or what is wrong with a line.
std::string readUser(std::string_view line, std::map<std::string, User>& found, bool& isPlain) {
    User user;
    user.readOnly = line.ends_with(":ro");
    line.remove_suffix(user.readOnly ? 3 : 0);
    const std::size_t colon = line.find(':');
    if (colon == 0 || colon >= line.size() - 1 ||
        std::any_of(line.begin(), line.end(), [](unsigned char c) { return c < ' ' || c == 0x7f; })) {
        return "is not NAME:PASSWORD or NAME:PASSWORD:ro";
    }
    const std::string password(line.substr(colon + 1));
    if (!password.starts_with('$') || password.find('$', 1) == std::string::npos) {
        isPlain = true;
        user.known = digestOf(password);
    } else if (const int check = crypt_checksalt(password.c_str());
               check == CRYPT_SALT_INVALID || check == CRYPT_SALT_METHOD_DISABLED) {
        return "has a hash that crypt(5) does not know; \"mkpasswd\" and \"htpasswd -B\" make good ones";
    } else {
        user.hash = password;
    }
    return found.emplace(std::string(line.substr(0, colon)), user).second ? "" : "has a name that is there already";
}

unsigned checkUser(std::string_view credentials, Request& request) {
    const std::string decoded = decode(credentials);
    const std::size_t colon = decoded.find(':');
    const bool isDecoded = colon != std::string::npos;
    const std::string name = decoded.substr(0, colon);
    const std::string password = isDecoded ? decoded.substr(colon + 1) : "";
    const Digest digest = isDecoded ? digestOf(password) : Digest();
    std::unique_lock hashing(hashingMutex, std::defer_lock);
    Owner<unsigned, 0, endTurn> turn;
    for (;;) {
        std::unique_lock lock(usersMutex);
        if (users.empty() || !isDecoded) {
            return users.empty() ? 0 : MHD_HTTP_UNAUTHORIZED;
        }
        const auto found = users.find(name);
        const bool isThere = found != users.end();
        // A name that is not there is checked against the hash of another, always the same: the time does not tell.
        const User& candidate =
            (isThere ? found : std::next(users.begin(), digestOf(name).front() % users.size()))->second;
        if (isThere && candidate.known && gnutls_memcmp(digest.data(), candidate.known->data(), digest.size()) == 0) {
            request.user = name;
            request.readOnly |= candidate.readOnly;
            return 0;
        }
        const std::string hash = candidate.hash;
        lock.unlock();
        if (hash.empty()) {
            return MHD_HTTP_UNAUTHORIZED;
        }
        if (turn.number == 0) {
            turn.number = ++turns;
            if (turn.number > mostTurns) {
                report(0, "too many passwords to check");
                return MHD_HTTP_SERVICE_UNAVAILABLE;
            }
            hashing.lock(); // then it looks again: another request may have brought the password
            continue;
        }
        if (!fits(password, hash) || !isThere) {
            return MHD_HTTP_UNAUTHORIZED;
        }
        lock.lock();
        if (const auto now = users.find(name); now != users.end() && now->second.hash == hash) {
            now->second.known = digest;
        }
    }
}

bool isAddress(int family, std::string_view text) {
    unsigned char address[sizeof(in6_addr)];
    return inet_pton(family, std::string(text).c_str(), address) == 1;
}

// True for an address and for a name of this server. The owner of a web page can make a host name of his own lead to
// this machine (DNS rebinding); requests from the page then carry that name.
bool isOwnHost(const Options& options, std::string_view host) {
    const std::size_t colon = host.rfind(':');
    if (colon != std::string_view::npos && host.find_first_not_of("0123456789", colon + 1) == std::string_view::npos) {
        host = host.substr(0, colon);
    }
    if (host.starts_with('[') && host.ends_with(']')) {
        return isAddress(AF_INET6, host.substr(1, std::min(host.find('%'), host.size() - 1) - 1));
    }
    host.remove_suffix(host.ends_with('.') ? 1 : 0);
    return isAddress(AF_INET, host) || isSameName(host, "localhost") ||
           std::any_of(options.hosts.begin(), options.hosts.end(),
                       [&](const std::string& name) { return isSameName(host, name); });
}

// Web pages can make a browser send changes (cross-site request forgery). These headers come from browsers only.
bool isFromBrowser(std::string_view name, std::string_view value) {
    return isSameName(name, "Origin") || isSameName(name, "Referer") || isSameName(name, "Cookie") ||
           (isSameName(name, "Sec-Fetch-Site") && value != "none");
}
} // namespace

std::string takeSecret(const std::string& file) {
    if (file.empty()) {
        return makeSecret();
    }
    // A crash leaves an empty file behind, and the next start fills it. The lock lets one of several starts do so.
    const Descriptor opened(open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR));
    struct stat st;
    if (opened.number >= 0 && flock(opened.number, LOCK_EX) == 0 && fstat(opened.number, &st) == 0 && st.st_size == 0 &&
        S_ISREG(st.st_mode) && (st.st_mode & S_IRWXO) == 0) {
        if (dprintf(opened.number, "%s\n", makeSecret().c_str()) < 0 || fsync(opened.number) != 0) {
            const int error = errno;
            static_cast<void>(ftruncate(opened.number, 0) == 0);
            throw std::system_error(error, std::generic_category(), file);
        }
    }
    std::string secret = readSettings(file, true);
    secret.erase(std::min(secret.find('\n'), secret.size()));
    if (secret.size() != secretLength || secret.find_first_not_of(base64url) != std::string::npos) {
        throw std::runtime_error(file + ": its first line is not a secret of 22 letters, digits, \"-\" and \"_\"");
    }
    return secret;
}

void readUsers(const std::string& file) {
    std::map<std::string, User> found;
    std::istringstream text(readSettings(file, true));
    std::string line;
    bool isPlain = false;
    for (unsigned number = 1; std::getline(text, line); ++number) {
        const bool isSkipped = line.empty() || line.starts_with('#');
        if (const std::string error = isSkipped ? "" : readUser(line, found, isPlain); !error.empty()) {
            throw std::runtime_error(file + ": line " + std::to_string(number) + " " + error);
        }
    }
    if (found.empty()) {
        throw std::runtime_error(file + ": there is no user in it");
    }
    if (isPlain) {
        say("warning: " + file + ": plain passwords will not be taken by the next version; \"mkpasswd\" hashes them");
    }
    const std::lock_guard lock(usersMutex);
    users = std::move(found);
}

unsigned admit(const RequestHead& head, const Options& options, Request& request) {
    std::string_view authority;
    const std::string_view path = withoutAuthority(head.text, authority);
    bool isMisdirected =
        valueOf(head, "Host").data() == nullptr || (authority.data() != nullptr && !isOwnHost(options, authority));
    for (const auto& [name, value] : head.headers) {
        if (isFromBrowser(name, value)) {
            return MHD_HTTP_FORBIDDEN;
        }
        isMisdirected |= isSameName(name, "Host") && !isOwnHost(options, value);
    }
    if (isMisdirected) {
        return MHD_HTTP_MISDIRECTED_REQUEST;
    }
    const std::string& base = options.base; // with the secret, so it is compared in constant time
    if (path.size() < base.size() || gnutls_memcmp(path.data(), base.data(), base.size()) != 0) {
        return MHD_HTTP_NOT_FOUND;
    }
    constexpr std::string_view scheme = "Basic ";
    std::string_view credentials = valueOf(head, "Authorization");
    const bool isBasic = isSameName(credentials.substr(0, scheme.size()), scheme);
    credentials.remove_prefix(isBasic ? std::min(credentials.find_first_not_of(' ', scheme.size()), credentials.size())
                                      : credentials.size());
    return checkUser(credentials, request);
}
