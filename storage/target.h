// What a request asks for, taken from its request line and Range header as they arrived.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

enum class Action { plain, props, statvfs, create, truncate, write, mkdir, unlink, rmdir, rename };

struct Target {
    std::string path; // relative to the served directory, "a/b"; empty is that directory itself
    Action action = Action::plain;
    std::int64_t offset = 0;      // of truncate and write, in bytes
    std::optional<unsigned> mode; // of create
    std::string to;               // of rename, like `path`
    bool replace = false;         // of rename
};

// A part of a file, `length` bytes from `first` on.
struct Range {
    std::uint64_t first;
    std::uint64_t length;
};

enum class RangeKind { whole, part, unsatisfiable };

// "http://host:port/path" means the same as "/path": returns the path and query of `text`, and stores "host:port" in
// `authority`, which keeps its value if there is none.
std::string_view withoutAuthority(std::string_view text, std::string_view& authority);

// The name of the action in a query; "read" for a plain read.
std::string_view nameOf(Action action);

// True for the actions that change something.
bool isChange(Action action);

// Parses `text` (path and query as on the request line). `prefix` is what every path begins with. Returns 0, or the
// HTTP status that refuses the request: 400 when it is malformed, 404 when it is outside the prefix.
int parseTarget(std::string_view text, std::string_view prefix, Target& target);

// Decodes a percent-encoded path into `path`; false when the encoding is broken or a component is "." or "..", or holds
// a NUL. Empty components are dropped.
bool decodePath(std::string_view encoded, std::string& path);

// Judges a Range header (null when there is none) for a file of `size` bytes. Several ranges, other units and
// malformed headers count as no header.
RangeKind parseRange(const char* header, std::uint64_t size, Range& range);
