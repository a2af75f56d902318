#include "storage/target.h"

#include <algorithm>
#include <charconv>
#include <microhttpd.h>

namespace {

struct ActionName {
    std::string_view name;
    Action action;
};

constexpr ActionName actionNames[] = {
    {"props", Action::props},       {"statvfs", Action::statvfs}, {"create", Action::create},
    {"truncate", Action::truncate}, {"write", Action::write},     {"mkdir", Action::mkdir},
    {"unlink", Action::unlink},     {"rmdir", Action::rmdir},     {"rename", Action::rename},
};

// Cuts `text` at the first `separator` and returns what stands before it; `text` becomes what follows.
std::string_view takeUntil(std::string_view& text, char separator) {
    const std::size_t end = std::min(text.find(separator), text.size());
    const std::string_view taken = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    return taken;
}

template <typename Number> bool parseNumber(std::string_view text, Number& number) {
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && stop == end;
}

int hexadecimalDigit(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    const char lower = static_cast<char>(c | 0x20);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

bool decodePercent(std::string_view encoded, std::string& text) {
    for (std::size_t i = 0; i < encoded.size(); ++i) {
        char c = encoded[i];
        if (c == '%') {
            if (encoded.size() - i < 3) {
                return false;
            }
            const int high = hexadecimalDigit(encoded[i + 1]);
            const int low = hexadecimalDigit(encoded[i + 2]);
            if (high < 0 || low < 0) {
                return false;
            }
            c = static_cast<char>(high * 16 + low);
            i += 2;
        }
        if (c == '\0') {
            return false;
        }
        text += c;
    }
    return true;
}

bool parseParameter(std::string_view parameter, Target& target, bool& hasTo, bool& hasOffset) {
    const std::string_view key = takeUntil(parameter, '=');
    if (key == "action") {
        const auto* known = std::find_if(std::begin(actionNames), std::end(actionNames),
                                         [&](const ActionName& entry) { return entry.name == parameter; });
        if (known == std::end(actionNames)) {
            return false;
        }
        target.action = known->action;
    } else if (key == "offset") {
        hasOffset = true;
        return parseNumber(parameter, target.offset) && target.offset >= 0;
    } else if (key == "mode") {
        return parseNumber(parameter, target.mode.emplace());
    } else if (key == "to") {
        hasTo = true;
        return decodePath(parameter, target.to);
    } else if (key == "replace") {
        target.replace = parameter == "1";
    }
    return true;
}

bool parseQuery(std::string_view query, Target& target) {
    if (query.empty()) {
        return true;
    }
    bool hasTo = false;
    bool hasOffset = false;
    while (!query.empty()) {
        if (!parseParameter(takeUntil(query, '&'), target, hasTo, hasOffset)) {
            return false;
        }
    }
    switch (target.action) {
    case Action::plain:
        return false;
    case Action::truncate:
    case Action::write:
        return hasOffset;
    case Action::rename:
        return hasTo;
    default:
        return true;
    }
}

} // namespace

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
    for (const ActionName& entry : actionNames) {
        if (entry.action == action) {
            return entry.name;
        }
    }
    return "read";
}

bool isChange(Action action) {
    return action != Action::plain && action != Action::props && action != Action::statvfs;
}

bool decodePath(std::string_view encoded, std::string& path) {
    std::string text;
    if (!decodePercent(encoded, text)) {
        return false;
    }
    path.clear();
    std::string_view rest = text;
    while (!rest.empty()) {
        const std::string_view component = takeUntil(rest, '/');
        if (component == "." || component == "..") {
            return false;
        }
        if (!component.empty()) {
            path.append(path.empty() ? "" : "/").append(component);
        }
    }
    return true;
}

int parseTarget(std::string_view text, std::string_view prefix, Target& target) {
    std::string_view authority;
    std::string_view query = withoutAuthority(text, authority);
    std::string_view encoded = takeUntil(query, '?');
    if (!encoded.starts_with('/')) {
        return MHD_HTTP_BAD_REQUEST;
    }
    if (!encoded.starts_with(prefix)) {
        return MHD_HTTP_NOT_FOUND;
    }
    encoded.remove_prefix(prefix.size());
    if (!decodePath(encoded, target.path) || !parseQuery(query, target)) {
        return MHD_HTTP_BAD_REQUEST;
    }
    // A prefix that does not end in "/" ends in the middle of a name unless a "/" follows.
    const bool atName = prefix.ends_with('/') || encoded.empty() || encoded.starts_with('/') ||
                        encoded.starts_with("%2F") || encoded.starts_with("%2f");
    return atName ? 0 : MHD_HTTP_NOT_FOUND;
}

RangeKind parseRange(const char* header, std::uint64_t size, Range& range) {
    range = {0, size};
    std::string_view text = header != nullptr ? header : "";
    constexpr std::string_view unit = "bytes=";
    if (!text.starts_with(unit)) {
        return RangeKind::whole;
    }
    text.remove_prefix(unit.size());
    const std::size_t dash = text.find('-');
    if (dash == std::string_view::npos) {
        return RangeKind::whole;
    }
    std::uint64_t first = 0;
    std::uint64_t last = UINT64_MAX;
    const std::string_view firstText = text.substr(0, dash);
    const std::string_view lastText = text.substr(dash + 1);
    if (firstText.empty()) {
        std::uint64_t suffix = 0;
        if (!parseNumber(lastText, suffix)) {
            return RangeKind::whole;
        }
        first = suffix < size ? size - suffix : 0;
        if (suffix == 0) {
            return RangeKind::unsatisfiable;
        }
    } else if (!parseNumber(firstText, first) || (!lastText.empty() && !parseNumber(lastText, last)) || last < first) {
        return RangeKind::whole;
    }
    if (first >= size) {
        return RangeKind::unsatisfiable;
    }
    range = {first, std::min(last, size - 1) - first + 1};
    return RangeKind::part;
}
