#include "storage/users.h"

#include "storage/settings.h"
#include "storage/trouble.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <crypt.h>
#include <gnutls/crypto.h>
#include <gnutls/gnutls.h>
#include <map>
#include <memory>
#include <microhttpd.h>
#include <mutex>
#include <new>
#include <optional>

namespace {

using Digest = std::array<unsigned char, 32>; // of a password, with the key of this process

struct User {
    std::string hash;  // empty where the password is plain
    Digest known = {}; // of the right password, once a request has brought it
    bool isKnown = false;
    bool readOnly = false;
};

std::mutex usersMutex;
std::map<std::string, User> users; // guarded by usersMutex; empty where nobody needs a name
std::mutex hashingMutex;           // one at a time: strangers can ask for it, and it takes megabytes
std::atomic<unsigned> turns = 0;
constexpr unsigned mostTurns = 256; // more requests with wrong passwords would take all connections

// Of a request that waits for hashingMutex or has it.
struct Turn {
    const unsigned number = ++turns;
    ~Turn() {
        --turns;
    }
};

Digest digestOf(std::string_view password) {
    static const Digest key = [] {
        Digest random = {};
        gnutls_rnd(GNUTLS_RND_KEY, random.data(), random.size());
        return random;
    }();
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

// Splits credentials of basic authentication, which are in base64.
bool decode(std::string_view credentials, std::string& name, std::string& password) {
    const gnutls_datum_t encoded = {reinterpret_cast<unsigned char*>(const_cast<char*>(credentials.data())),
                                    static_cast<unsigned>(credentials.size())};
    gnutls_datum_t decoded = {};
    if (credentials.empty() || gnutls_base64_decode2(&encoded, &decoded) != 0) {
        return false;
    }
    name.assign(reinterpret_cast<char*>(decoded.data), decoded.size);
    gnutls_free(decoded.data);
    const std::size_t colon = name.find(':');
    if (colon != std::string::npos) {
        password = name.substr(colon + 1);
        name.resize(colon);
    }
    return colon != std::string::npos;
}

bool isHash(std::string_view password) {
    return password.starts_with('$') && password.find('$', 1) != std::string_view::npos;
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
    if (!isHash(password)) {
        isPlain = true;
        user.isKnown = true;
        user.known = digestOf(password);
    } else if (const int check = crypt_checksalt(password.c_str());
               check == CRYPT_SALT_INVALID || check == CRYPT_SALT_METHOD_DISABLED) {
        return "has a hash that crypt(5) does not know; \"mkpasswd\" and \"htpasswd -B\" make good ones";
    } else {
        user.hash = password;
    }
    return found.emplace(std::string(line.substr(0, colon)), user).second ? "" : "has a name that is there already";
}

} // namespace

std::string readUsers(const std::string& file) {
    std::string text;
    if (std::string error = readSettings(file, true, text); !error.empty()) {
        return error;
    }
    std::map<std::string, User> found;
    bool isPlain = false;
    std::string_view rest = text;
    for (unsigned number = 1; !rest.empty(); ++number) {
        const std::string_view line = rest.substr(0, rest.find('\n'));
        rest.remove_prefix(std::min(line.size() + 1, rest.size()));
        if (line.empty() || line.starts_with('#')) {
            continue;
        }
        if (const std::string error = readUser(line, found, isPlain); !error.empty()) {
            return file + ": line " + std::to_string(number) + " " + error;
        }
    }
    if (found.empty()) {
        return file + ": there is no user in it";
    }
    if (isPlain) {
        say("warning: " + file + ": plain passwords will not be taken by the next version; \"mkpasswd\" hashes them");
    }
    const std::lock_guard lock(usersMutex);
    users = std::move(found);
    return "";
}

unsigned checkUser(std::string_view credentials, std::string& user, bool& readOnly) {
    std::string name;
    std::string password;
    const bool isDecoded = decode(credentials, name, password);
    const Digest digest = digestOf(password);
    std::unique_lock hashing(hashingMutex, std::defer_lock);
    std::optional<Turn> turn;
    for (;;) {
        std::unique_lock lock(usersMutex);
        if (users.empty() || !isDecoded) {
            return users.empty() ? 0 : MHD_HTTP_UNAUTHORIZED;
        }
        const auto found = users.find(name);
        const bool isThere = found != users.end();
        // Without such a name it checks another user's password, so that the time does not tell.
        const User& candidate = isThere ? found->second : users.begin()->second;
        const bool isSame = gnutls_memcmp(digest.data(), candidate.known.data(), digest.size()) == 0;
        if (isThere && candidate.isKnown && isSame) {
            user = name;
            readOnly = candidate.readOnly;
            return 0;
        }
        const std::string hash = candidate.hash;
        lock.unlock();
        if (hash.empty()) {
            return MHD_HTTP_UNAUTHORIZED;
        }
        if (!turn) {
            if (turn.emplace().number > mostTurns) {
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
            now->second.isKnown = true;
        }
    }
}
