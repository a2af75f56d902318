#include "storage/access.h"

#include "storage/target.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <gnutls/gnutls.h>
#include <mutex>
#include <netinet/in.h>
#include <strings.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr std::size_t secretLength = 22;
constexpr std::size_t largestFile = 1 << 20;
constexpr std::string_view base64url = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
constexpr std::string_view basicScheme = "Basic ";

struct User {
    std::string name;
    std::string credentials; // base64 of name, colon and password, as a client sends them
    bool readOnly;
};

std::mutex usersMutex;
std::vector<User> users; // guarded by usersMutex; empty where nobody needs a name

// What the headers of a request say about its sender.
struct Headers {
    const AccessOptions& options;
    unsigned refusal = 0;
    bool hasHost = false;
    std::string_view credentials;
};

// Compares in constant time: how long it takes depends only on the lengths.
bool isSame(std::string_view given, std::string_view expected) {
    return given.size() == expected.size() && gnutls_memcmp(given.data(), expected.data(), given.size()) == 0;
}

bool isSameName(std::string_view a, std::string_view b) {
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

bool isAddress(int family, std::string_view text) {
    unsigned char address[sizeof(in6_addr)];
    return inet_pton(family, std::string(text).c_str(), address) == 1;
}

// True for an address and for a name of this server. The owner of a web page can make a host name of his own lead to
// this machine; requests from the page then carry that name.
bool isOwnHost(const AccessOptions& options, std::string_view host) {
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

MHD_Result readHeader(void* context, MHD_ValueKind, const char* key, const char* value) {
    auto& headers = *static_cast<Headers*>(context);
    const std::string_view name = key;
    const std::string_view text = value != nullptr ? value : "";
    if (isSameName(name, "Host")) {
        headers.hasHost = true;
        headers.refusal = isOwnHost(headers.options, text) ? headers.refusal : MHD_HTTP_MISDIRECTED_REQUEST;
    } else if (isSameName(name, "Origin") || isSameName(name, "Referer") || isSameName(name, "Cookie") ||
               (isSameName(name, "Sec-Fetch-Site") && text != "none")) {
        headers.refusal = MHD_HTTP_FORBIDDEN;
        return MHD_NO;
    } else if (isSameName(name, "Authorization") && isSameName(text.substr(0, basicScheme.size()), basicScheme)) {
        headers.credentials = text.substr(std::min(text.find_first_not_of(' ', basicScheme.size()), text.size()));
    }
    return MHD_YES;
}

// Every user is compared, so that the time does not tell which one it was.
bool findUser(std::string_view credentials, Visitor& visitor) {
    const std::lock_guard lock(usersMutex);
    bool found = users.empty();
    for (const User& user : users) {
        if (isSame(credentials, user.credentials)) {
            visitor = {user.name, user.readOnly};
            found = true;
        }
    }
    return found;
}

std::string errorOf(const std::string& file) {
    return file + ": " + std::strerror(errno);
}

} // namespace

unsigned admit(MHD_Connection* connection, const AccessOptions& options, std::string_view text, Visitor& visitor) {
    Headers headers = {options};
    MHD_get_connection_values(connection, MHD_HEADER_KIND, readHeader, &headers);
    std::string_view authority;
    const std::string_view path = withoutAuthority(text, authority);
    if (headers.refusal == 0 && (!headers.hasHost || (authority.data() != nullptr && !isOwnHost(options, authority)))) {
        headers.refusal = MHD_HTTP_MISDIRECTED_REQUEST;
    }
    if (headers.refusal != 0) {
        return headers.refusal;
    }
    if (!isSame(path.substr(0, options.base.size()), options.base)) {
        return MHD_HTTP_NOT_FOUND;
    }
    visitor.readOnly = false;
    if (!findUser(headers.credentials, visitor)) {
        return MHD_HTTP_UNAUTHORIZED;
    }
    visitor.readOnly |= options.readOnly;
    return 0;
}

std::string readFile(const std::string& name, bool isPrivate, std::string& text) {
    const int file = open(name.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat st;
    if (file < 0 || fstat(file, &st) != 0) {
        return errorOf(name);
    }
    std::string error;
    if (isPrivate && (st.st_mode & S_IRWXO) != 0) {
        error = name + ": others can read it; \"chmod o=\" mends that";
    }
    text.clear();
    while (error.empty()) {
        char part[4096];
        const ssize_t count = read(file, part, sizeof part);
        if (count == 0) {
            error = text.empty() ? name + ": it is empty" : "";
            break;
        }
        error = count < 0 ? errorOf(name) : text.size() > largestFile ? name + ": it is too large" : "";
        text.append(part, std::max<ssize_t>(count, 0));
    }
    close(file);
    return error;
}

std::string makeSecret(std::string& secret) {
    unsigned char random[secretLength];
    if (getrandom(random, sizeof random, 0) != sizeof random) {
        return "no random numbers are available";
    }
    // The last of 22 characters carries the last two of 128 bits.
    random[secretLength - 1] &= 0x30;
    secret.clear();
    for (const unsigned char byte : random) {
        secret += base64url[byte % base64url.size()];
    }
    return "";
}

std::string keepSecret(const std::string& file, std::string& secret) {
    const int made = open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (made < 0 && errno != EEXIST) {
        return errorOf(file);
    }
    if (made >= 0) {
        std::string error = makeSecret(secret);
        const std::string line = secret + "\n";
        if (error.empty() &&
            (write(made, line.data(), line.size()) != static_cast<ssize_t>(line.size()) || fsync(made) != 0)) {
            error = errorOf(file);
        }
        close(made);
        if (!error.empty()) {
            unlink(file.c_str());
        }
        return error;
    }
    std::string error = readFile(file, true, secret);
    secret.erase(std::min(secret.find('\n'), secret.size()));
    if (error.empty() && (secret.size() != secretLength || secret.find_first_not_of(base64url) != std::string::npos)) {
        error = file + ": its first line is not a secret of 22 letters, digits, \"-\" and \"_\"";
    }
    return error;
}

std::string readUsers(const std::string& file) {
    std::string text;
    if (std::string error = readFile(file, true, text); !error.empty()) {
        return error;
    }
    std::vector<User> found;
    std::string_view rest = text;
    for (unsigned number = 1; !rest.empty(); ++number) {
        std::string_view line = rest.substr(0, rest.find('\n'));
        rest.remove_prefix(std::min(line.size() + 1, rest.size()));
        if (line.empty() || line.starts_with('#')) {
            continue;
        }
        const bool readOnly = line.ends_with(":ro");
        line.remove_suffix(readOnly ? 3 : 0);
        const std::size_t colon = line.find(':');
        if (colon == 0 || colon >= line.size() - 1 ||
            std::any_of(line.begin(), line.end(), [](unsigned char c) { return c < ' ' || c == 0x7f; })) {
            return file + ": line " + std::to_string(number) + " is not NAME:PASSWORD or NAME:PASSWORD:ro";
        }
        const gnutls_datum_t plain = {reinterpret_cast<unsigned char*>(const_cast<char*>(line.data())),
                                      static_cast<unsigned>(line.size())};
        gnutls_datum_t encoded = {};
        if (gnutls_base64_encode2(&plain, &encoded) != 0) {
            return file + ": out of memory";
        }
        found.push_back(
            {std::string(line.substr(0, colon)), {reinterpret_cast<char*>(encoded.data), encoded.size}, readOnly});
        gnutls_free(encoded.data);
    }
    if (found.empty()) {
        return file + ": there is no user in it";
    }
    const std::lock_guard lock(usersMutex);
    users = std::move(found);
    return "";
}

bool isLoopback(const sockaddr_storage& address) {
    if (address.ss_family == AF_INET) {
        return ntohl(reinterpret_cast<const sockaddr_in&>(address).sin_addr.s_addr) >> 24 == IN_LOOPBACKNET;
    }
    const in6_addr& bytes = reinterpret_cast<const sockaddr_in6&>(address).sin6_addr;
    return IN6_IS_ADDR_LOOPBACK(&bytes) || (IN6_IS_ADDR_V4MAPPED(&bytes) && bytes.s6_addr[12] == IN_LOOPBACKNET);
}
