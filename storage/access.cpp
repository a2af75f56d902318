#include "storage/access.h"

#include "storage/users.h"

#include <algorithm>
#include <arpa/inet.h>
#include <gnutls/gnutls.h>
#include <microhttpd.h>

namespace {

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

// Compares in constant time: how long it takes depends only on the lengths.
bool isSame(std::string_view given, std::string_view expected) {
    return given.size() == expected.size() && gnutls_memcmp(given.data(), expected.data(), given.size()) == 0;
}

} // namespace

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
    if (!isSame(path.substr(0, options.base.size()), options.base)) {
        return MHD_HTTP_NOT_FOUND;
    }
    constexpr std::string_view scheme = "Basic ";
    std::string_view credentials = valueOf(head, "Authorization");
    const bool isBasic = isSameName(credentials.substr(0, scheme.size()), scheme);
    credentials.remove_prefix(isBasic ? std::min(credentials.find_first_not_of(' ', scheme.size()), credentials.size())
                                      : credentials.size());
    if (const unsigned status = checkUser(credentials, request.user, request.readOnly); status != 0) {
        return status;
    }
    request.readOnly |= options.readOnly;
    return 0;
}
