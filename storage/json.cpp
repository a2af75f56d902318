#include "storage/json.h"

#include "storage/log.h"
#include "storage/tree.h"

#include <cstdio>

namespace {
constexpr std::size_t longestElement = 2048; // an escaped name has 1530 characters

// Adds members behind the brace or the member with which `json` ends.
void appendMembers(std::string& json, std::initializer_list<std::pair<const char*, std::int64_t>> members) {
    for (const auto& [key, value] : members) {
        char digits[24];
        const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
        json += json.back() == '{' ? "\"" : ",\"";
        json.append(key).append("\":").append(digits, end - digits);
    }
}

void appendAttributes(std::string& json, const struct stat& st) {
    appendMembers(json, {{"s", st.st_size},
                         {"b", st.st_blocks},
                         {"m", st.st_mode},
                         {"nl", st.st_nlink},
                         {"at", st.st_atime},
                         {"mt", st.st_mtime},
                         {"ct", st.st_ctime}});
}

void appendString(std::string& json, std::string_view text) {
    const auto isEscaped = [](unsigned char c) { return c < ' ' || c == '"' || c == '\\'; };
    json += '"';
    for (const char* next = text.begin();; ++next) {
        const char* const plain = std::exchange(next, std::find_if(next, text.end(), isEscaped));
        json.append(plain, next);
        if (next == text.end()) {
            break;
        }
        char escape[8];
        std::snprintf(escape, sizeof escape, *next < ' ' ? "\\u%04x" : "\\%c", *next);
        json += escape;
    }
    json += '"';
}

// Adds the entry `name` to the text if it is shown; 0 or a negated error number.
int addEntry(Listing& listing, const char* name) {
    const std::string_view text = name;
    if (text == "." || text == ".." || !isUtf8(text)) {
        listing.leftOut += isUtf8(text) ? 0 : 1;
        return 0;
    }
    struct stat st;
    const int result = statEntry({dirfd(listing.directory.get()), listing.path, name}, st);
    if (result == 0) {
        listing.text.append(listing.text.ends_with('[') ? "" : ",").append("{");
        appendMembers(listing.text, {{"t", IFTODT(st.st_mode)}}); // 4 for a directory
        appendAttributes(listing.text, st);
        listing.text += ",\"n\":";
        appendString(listing.text, text);
        listing.text += '}';
    }
    return result == -ENOENT || (S_ISLNK(st.st_mode) && !isFailure(result)) ? 0 : result;
}

// Adds the next elements to the text; 0 or a negated error number.
int continueListing(Listing& listing) {
    while (!listing.isComplete && listing.text.size() < listingMemory - longestElement) {
        errno = 0;
        const dirent* entry = readdir(listing.directory.get());
        if (const int error = entry != nullptr ? addEntry(listing, entry->d_name) : -errno; error != 0) {
            return error;
        }
        listing.isComplete = entry == nullptr;
    }
    listing.text += listing.isComplete ? "]}" : "";
    if (listing.isComplete && listing.leftOut != 0) {
        std::string shown;
        appendString(shown, "/" + listing.path);
        say(shown + ": left out " + std::to_string(listing.leftOut) + " name(s) that are not UTF-8");
    }
    return 0;
}
} // namespace

std::string attributeObject(const struct stat& st) {
    std::string json = "{";
    appendAttributes(json, st);
    return std::move(json) + "}";
}

std::string statisticsObject(const struct statvfs& volume) {
    std::uint64_t unit = volume.f_frsize;
    unsigned shift = 0;
    while ((volume.f_blocks >> shift) > INT32_MAX && unit < (1U << 30)) {
        ++shift;
        unit *= 2;
    }
    std::string json = "{";
    appendMembers(json, {{"bsize", volume.f_bsize},
                         {"frsize", unit},
                         {"blocks", volume.f_blocks >> shift},
                         {"bfree", volume.f_bfree >> shift},
                         {"bavail", volume.f_bavail >> shift},
                         {"namemax", volume.f_namemax}});
    return std::move(json) + "}";
}

std::string statusEnvelope(int code) {
    return "{\"hc\":" + std::to_string(code) + "}";
}

int beginListing(Descriptor directory, const std::string& path, Listing& listing) {
    listing.directory.reset(fdopendir(directory.number));
    if (listing.directory == nullptr) {
        return -errno;
    }
    directory.number = -1; // the stream closes it
    listing.path = path + (path.empty() ? "" : "/");
    listing.text = "{\"entries\":[";
    return continueListing(listing);
}

ssize_t readListing(Listing& listing, char* bytes, std::size_t size) try {
    if (listing.taken == listing.text.size() && !listing.isComplete) {
        listing.text.clear();
        listing.taken = 0;
        if (const int error = continueListing(listing); error != 0) {
            return error;
        }
    }
    const std::size_t count = listing.text.copy(bytes, size, listing.taken);
    listing.taken += count;
    return static_cast<ssize_t>(count);
} catch (const std::bad_alloc&) {
    return -ENOMEM;
}
