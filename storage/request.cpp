#include "storage/request.h"

#include "storage/access.h"

#include <arpa/inet.h>
#include <microhttpd.h>
#include <strings.h>

namespace {
constexpr std::string_view actionNames[] = {"read",  "props", "statvfs", "create", "truncate",
                                            "write", "mkdir", "unlink",  "rmdir",  "rename"};

// Cuts `text` at the first `separator` and returns what stands before it; `text` becomes what follows.
std::string_view takeUntil(std::string_view& text, char separator) {
    const std::size_t end = std::min(text.find(separator), text.size());
    const std::string_view taken = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    return taken;
}

// Decodes a percent-encoded path into `path`, which is empty; false when the encoding is broken or a component is "."
// or "..", or holds a NUL. Empty components are dropped.
bool decodePath(std::string_view encoded, std::string& path) {
    std::string text;
    for (std::size_t i = 0; i < encoded.size(); ++i) {
        unsigned char c = encoded[i];
        if (c == '%') {
            const std::string_view digits = encoded.substr(i + 1, 2);
            if (digits.size() != 2 || !parseNumber(digits, c, 16)) {
                return false;
            }
            i += 2;
        }
        text += static_cast<char>(c);
    }
    for (std::string_view rest = text; !rest.empty();) {
        const std::string_view component = takeUntil(rest, '/');
        if (component == "." || component == "..") {
            return false;
        }
        path.append(path.empty() || component.empty() ? "" : "/").append(component);
    }
    return path.find('\0') == std::string::npos;
}

bool parseQuery(std::string_view query, Target& target) {
    constexpr std::string_view names[] = {"action", "flags", "offset", "mode", "to", "replace"};
    std::optional<std::string_view> values[std::size(names)];
    const auto& [action, flags, offset, mode, to, replace] = values;
    bool isDoubtful = query.find(';') != std::string_view::npos; // some proxies take a parameter to end there
    for (std::string_view rest = query; !rest.empty();) {
        std::string_view value = takeUntil(rest, '&');
        const auto* const name = std::find(std::begin(names), std::end(names), takeUntil(value, '='));
        // Of a parameter that comes twice a proxy may take the first.
        isDoubtful |= name != std::end(names) && std::exchange(values[name - names], value).has_value();
    }
    const auto* chosen = query.empty()
                             ? std::begin(actionNames)
                             : std::find(std::begin(actionNames) + 1, std::end(actionNames), action.value_or(""));
    target.action = static_cast<Action>(chosen - actionNames);
    target.replace = replace == "1";
    const bool needsOffset = target.action == Action::truncate || target.action == Action::write;
    return !isDoubtful && chosen != std::end(actionNames) && (offset || !needsOffset) &&
           (to || target.action != Action::rename) &&
           (!offset || (parseNumber(*offset, target.offset.emplace()) && *target.offset >= 0)) &&
           (!mode || parseNumber(*mode, target.mode.emplace())) && (!to || decodePath(*to, target.to.emplace()));
}

// Checks the headers that say where the body ends, and stores its length if they tell it. If they leave doubt, the rest
// of the body could pass for a request of its own (request smuggling). The library ignores headers whose name it does
// not know. Among them are names with a blank behind them, and those that begin with the rest of a folded line.
unsigned judgeFraming(const RequestHead& head, std::uint64_t& length) {
    constexpr std::string_view contentLength = "Content-Length";
    constexpr std::string_view transferEncoding = "Transfer-Encoding";
    unsigned count = 0; // of headers that say where the body ends
    bool isDoubtful = false;
    for (const auto& [name, value] : head.headers) {
        const bool isLength = isSameName(name.substr(0, contentLength.size()), contentLength);
        const bool isEncoding = isSameName(name.substr(0, transferEncoding.size()), transferEncoding);
        count += isLength || isEncoding ? 1 : 0;
        isDoubtful |= name.empty() ||
                      std::any_of(name.begin(), name.end(), [](char c) { return c <= ' ' || c >= 0x7f; }) ||
                      (isLength && (name.size() != contentLength.size() || !parseNumber(value, length))) ||
                      (isEncoding && (name.size() != transferEncoding.size() || !isSameName(value, "chunked") ||
                                      head.version != MHD_HTTP_VERSION_1_1));
    }
    return isDoubtful || count > 1 ? MHD_HTTP_BAD_REQUEST : length > largestBody ? MHD_HTTP_CONTENT_TOO_LARGE : 0;
}

// The last address of X-Forwarded-For is the one that the proxy itself has seen.
std::string forwardedAddress(const RequestHead& head) {
    std::string last;
    for (const auto& [name, value] : head.headers) {
        if (isSameName(name, "X-Forwarded-For")) {
            last = value.substr(std::min(value.find_last_of(", ") + 1, value.size()));
        }
    }
    in6_addr bytes;
    return inet_pton(AF_INET, last.c_str(), &bytes) == 1 || inet_pton(AF_INET6, last.c_str(), &bytes) == 1 ? last : "";
}

unsigned judgeTarget(const RequestHead& head, const Options& options, Request& request) {
    if (const unsigned malformed = parseTarget(head.text, options.base, request.target); malformed != 0) {
        return malformed;
    }
    request.understood = true;
    const Action action = request.target.action;
    const bool isChange = action != Action::plain && action != Action::props && action != Action::statvfs;
    const bool isGet = head.method == MHD_HTTP_METHOD_GET || (head.method == MHD_HTTP_METHOD_HEAD && !isChange);
    const bool isAllowed = action == Action::write ? head.method == MHD_HTTP_METHOD_PUT : isGet;
    return !isAllowed ? MHD_HTTP_METHOD_NOT_ALLOWED : request.readOnly && isChange ? MHD_HTTP_FORBIDDEN : 0;
}
} // namespace

Request judge(const RequestHead& head, const Options& options) {
    Request request;
    request.readOnly = options.readOnly;
    request.forwardedFor = options.behindProxy ? forwardedAddress(head) : "";
    request.range = valueOf(head, "Range");
    request.refusal = judgeFraming(head, request.declared);
    request.isDoubtful = request.refusal != 0;
    request.refusal = request.isDoubtful ? request.refusal : admit(head, options, request);
    request.admitted = request.refusal == 0;
    request.refusal = request.admitted ? judgeTarget(head, options, request) : request.refusal;
    return request;
}

unsigned parseTarget(std::string_view text, std::string_view prefix, Target& target) {
    std::string_view authority;
    std::string_view query = withoutAuthority(text, authority);
    std::string_view encoded = takeUntil(query, '?');
    if (!encoded.starts_with(prefix)) {
        return encoded.starts_with('/') ? MHD_HTTP_NOT_FOUND : MHD_HTTP_BAD_REQUEST;
    }
    encoded.remove_prefix(prefix.size());
    if (!decodePath(encoded, target.path) || !parseQuery(query, target)) {
        return MHD_HTTP_BAD_REQUEST;
    }
    // A prefix that does not end in "/" ends in the middle of a name unless a "/" follows.
    const bool isAtName =
        prefix.ends_with('/') || encoded.empty() || encoded.starts_with('/') || isSameName(encoded.substr(0, 3), "%2F");
    return isAtName ? 0 : MHD_HTTP_NOT_FOUND;
}

bool parseRange(std::string_view text, std::uint64_t size, Range& range) {
    constexpr std::string_view unit = "bytes=";
    range = {0, size};
    const std::size_t dash = text.find('-');
    if (!text.starts_with(unit) || dash == std::string_view::npos) {
        return false;
    }
    const std::string_view firstText = text.substr(unit.size(), dash - unit.size());
    const std::string_view lastText = text.substr(dash + 1);
    std::uint64_t first = 0;
    std::uint64_t last = UINT64_MAX;
    if ((!firstText.empty() && !parseNumber(firstText, first)) ||
        ((firstText.empty() || !lastText.empty()) && !parseNumber(lastText, last)) || last < first) {
        return false;
    }
    if (firstText.empty()) { // the last bytes
        first = last != 0 ? size - std::min(last, size) : size;
        last = size;
    }
    range = {first, first < size ? std::min(last, size - 1) - first + 1 : 0};
    return true;
}

std::string_view withoutAuthority(std::string_view text, std::string_view& authority) {
    for (const std::string_view scheme : {"http://", "https://"}) {
        if (text.starts_with(scheme)) {
            const std::size_t slash = std::min(text.find('/', scheme.size()), text.size());
            authority = text.substr(scheme.size(), slash - scheme.size());
            return slash == text.size() ? "/" : text.substr(slash);
        }
    }
    return text;
}

std::string_view nameOf(Action action) {
    return actionNames[static_cast<std::size_t>(action)];
}

std::string_view valueOf(const RequestHead& head, std::string_view name) {
    const auto found = std::find_if(head.headers.begin(), head.headers.end(),
                                    [&](const auto& header) { return isSameName(header.first, name); });
    return found != head.headers.end() ? found->second : std::string_view();
}

bool isSameName(std::string_view a, std::string_view b) {
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}
