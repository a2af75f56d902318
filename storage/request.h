// A request: what has arrived of it, and what it asks for.
#pragma once

#include "storage/options.h"

#include <optional>

// Request line and headers as they arrived.
struct RequestHead {
    std::string_view method;
    std::string_view text; // path and query
    std::string_view version;
    std::vector<std::pair<std::string_view, std::string_view>> headers; // name and value
};

enum class Action { plain, props, statvfs, create, truncate, write, mkdir, unlink, rmdir, rename };

struct Target {
    std::string path; // relative to the served directory, "a/b"; empty is that directory itself
    Action action = Action::plain;
    std::optional<std::int64_t> offset; // of truncate and write, in bytes
    std::optional<unsigned> mode;       // of create
    std::optional<std::string> to;      // of rename, like `path`
    bool replace = false;               // of rename
};

constexpr std::uint64_t largestBody = 1 << 20;

struct Request {
    Target target;
    std::string user;         // who sent it; empty where nobody has a name
    std::string forwardedFor; // the client's address, if a proxy has told it
    std::string range;        // the header, empty without one
    unsigned refusal = 0;     // HTTP status; 0 for a request that may go on
    bool readOnly = false;
    bool isDoubtful = false; // nobody knows where the body ends, or it is too long: it is not read
    bool admitted = false;   // secret and password are right
    bool understood = false; // `target` is what the client asks for
    // Of a write:
    Descriptor file;
    std::string body;
    MemoryShare share;          // of the body
    std::uint64_t declared = 0; // length of the body; 0 if the request does not say it
    std::uint64_t received = 0;
};

// Judges a request by its head, before anything is opened. The first check that fails decides: where the body ends
// (400, 413), browsers (403), host names (421), prefix and secret (404), name and password (401), path and query (400),
// method (405), the right to change (403).
Request judge(const RequestHead& head, const Options& options);

// A part of a file, `length` bytes from `first` on.
struct Range {
    std::uint64_t first;
    std::uint64_t length;
};

// Judges a Range header (empty when there is none) for a file of `size` bytes. False stands for the whole file, also
// for several ranges, other units and malformed headers. A range that begins behind the end is empty.
bool parseRange(std::string_view text, std::uint64_t size, Range& range);

// Parses `text` (path and query as on the request line). `prefix` is what every path begins with. Returns 0, or the
// HTTP status that refuses the request: 400 when it is malformed, 404 when it is outside the prefix.
unsigned parseTarget(std::string_view text, std::string_view prefix, Target& target);

// "http://host:port/path" means the same as "/path": returns the path and query of `text`, and stores "host:port" in
// `authority`, which keeps its value if there is none.
std::string_view withoutAuthority(std::string_view text, std::string_view& authority);

// The name of the action in a query; "read" for a plain read.
std::string_view nameOf(Action action);

// The value of the first header with this name; its data are null without one.
std::string_view valueOf(const RequestHead& head, std::string_view name);

// Compares without regard to upper and lower case.
bool isSameName(std::string_view a, std::string_view b);
