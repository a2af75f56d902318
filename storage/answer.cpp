#include "storage/answer.h"

#include "storage/json.h"
#include "storage/log.h"
#include "storage/tree.h"

namespace {

constexpr std::uint64_t largestCopy = 1 << 18;

// The reply that refuses a request for an error of the disk.
Reply refuseFor(const Request& request, int error) {
    // A mount that was cut off says of its root that it is not there, and of open files that they may not be used.
    const int cause = isFailure(error) || !isTreeGone() ? error : -EIO;
    if (isFailure(cause)) {
        report(statusOf(cause), std::strerror(-cause));
    }
    return refuse(request, statusOf(cause));
}

Reply json(std::string text) {
    const std::uint64_t length = text.size();
    return {.status = MHD_HTTP_OK,
            .length = length,
            .headers = {{MHD_HTTP_HEADER_CONTENT_TYPE, "application/json"}},
            .body = std::move(text)};
}

// For the changes whose reply says nothing but whether they were made.
Reply outcome(const Request& request, int result) {
    return result == 0 ? Reply{.status = MHD_HTTP_NO_CONTENT} : refuseFor(request, result);
}

// For the changes that report the outcome in an envelope.
Reply envelope(const Request& request, int result) {
    const bool isInTheWay = result == -EEXIST || result == -ENOTEMPTY || result == -EISDIR;
    return result != 0 && !isInTheWay ? refuseFor(request, result)
                                      : json(statusEnvelope(isInTheWay ? MHD_HTTP_CONFLICT : MHD_HTTP_OK));
}

Reply attributes(const Request& request, int result, const struct stat& st) {
    return result < 0 ? refuseFor(request, result) : json(attributeObject(st));
}

Reply statistics(const Request& request) {
    struct stat st;
    struct statvfs volume;
    const Descriptor root = lookUp("", st);
    const int result = root.number < 0 ? root.number : resultOf(fstatvfs(root.number, &volume));
    return result == 0 ? json(statisticsObject(volume)) : refuseFor(request, result);
}

Reply listing(Request& request, Descriptor directory) {
    takeMemory(request.share, listingMemory);
    Listing made;
    if (const int error = beginListing(std::move(directory), request.target.path, made); error != 0) {
        return refuseFor(request, error);
    }
    if (made.isComplete) {
        return json(std::move(made.text));
    }
    Reply reply = json("");
    reply.body = std::move(made);
    return reply;
}

// The file or the range that is asked for. A short one is read at once and declared as long as it was, even if the file
// becomes shorter at the same time.
Reply content(Request& request, Descriptor file, std::uint64_t size) {
    Range range = {};
    const RangeKind kind = parseRange(request.range, size, range);
    Reply reply = {.status = MHD_HTTP_OK,
                   .headers = {{MHD_HTTP_HEADER_CONTENT_TYPE, "application/octet-stream"},
                               {MHD_HTTP_HEADER_ACCEPT_RANGES, "bytes"}}};
    takeMemory(request.share, std::min(range.length, largestCopy));
    if (range.length > largestCopy) {
        reply.body = Stream{std::move(file), range.first};
    } else {
        auto& copy = reply.body.emplace<Copy>(std::make_unique_for_overwrite<char[]>(range.length));
        const ssize_t count = readFrom(file, copy.get(), range.length, range.first);
        if (count < 0) {
            return refuseFor(request, static_cast<int>(count));
        }
        range.length = count;
    }
    reply.length = range.length;
    if (kind != RangeKind::whole) {
        const bool isEmpty = range.length == 0;
        const std::string last = std::to_string(range.first + range.length - 1);
        const std::string span = isEmpty ? "*" : std::to_string(range.first) + "-" + last;
        reply.status = isEmpty ? MHD_HTTP_RANGE_NOT_SATISFIABLE : MHD_HTTP_PARTIAL_CONTENT;
        reply.headers.push_back({MHD_HTTP_HEADER_CONTENT_RANGE, "bytes " + span + "/" + std::to_string(size)});
    }
    return reply;
}

Reply plainRead(Request& request) {
    struct stat st;
    Descriptor opened = openInTree(request.target.path, O_RDONLY, st);
    return opened.number < 0     ? refuseFor(request, opened.number)
           : S_ISDIR(st.st_mode) ? listing(request, std::move(opened))
                                 : content(request, std::move(opened), st.st_size);
}

} // namespace

Reply openUpload(Request& request) {
    struct stat st;
    request.file = openInTree(request.target.path, O_WRONLY, st);
    return request.file.number < 0 ? refuseFor(request, request.file.number) : Reply();
}

Reply answer(Request& request) {
    const Target& target = request.target;
    struct stat st = {};
    int result = 0;
    switch (target.action) {
    case Action::plain:
        return plainRead(request);
    case Action::statvfs:
        return statistics(request);
    case Action::props:
        result = lookUp(target.path, st).number;
        return attributes(request, result, st);
    case Action::write:
        result = writeInTree(std::move(request.file), target.path, request.body, *target.offset, st);
        return attributes(request, result, st);
    case Action::create:
        return outcome(request, createInTree(target.path, target.mode));
    case Action::truncate:
        return outcome(request, truncateInTree(target.path, *target.offset));
    case Action::unlink:
        return outcome(request, removeInTree(target.path, 0));
    case Action::rmdir:
        return outcome(request, removeInTree(target.path, AT_REMOVEDIR));
    case Action::mkdir:
        return envelope(request, makeDirectoryInTree(target.path));
    case Action::rename:
        break;
    }
    return envelope(request, renameInTree(target.path, *target.to, target.replace));
}

Reply refuse(const Request& request, unsigned status) {
    Reply reply = {.status = status, .isLast = !request.admitted};
    const Action action = request.target.action;
    if (status >= MHD_HTTP_INTERNAL_SERVER_ERROR && (action == Action::plain || action == Action::props)) {
        reply.body = BrokenOff();
    }
    if (status == MHD_HTTP_UNAUTHORIZED) {
        reply.headers.push_back({MHD_HTTP_HEADER_WWW_AUTHENTICATE, "Basic realm=\"kelvane_storage\""});
    }
    return reply;
}
