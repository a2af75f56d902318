#include "storage/replies.h"

#include "storage/response.h"
#include "storage/tree.h"

#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <unistd.h>

namespace {

constexpr int listedDirectory = 4;

void appendMember(Text& json, const char* key, std::int64_t value) {
    char digits[24];
    const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
    json += json.back() == '{' ? "\"" : ",\"";
    json.append(key).append("\":").append(digits, end - digits);
}

void appendString(Text& json, const char* text) {
    json += '"';
    for (; *text != '\0'; ++text) {
        const auto c = static_cast<unsigned char>(*text);
        if (c < 0x20) {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\u%04x", c);
            json += escape;
        } else {
            if (c == '"' || c == '\\') {
                json += '\\';
            }
            json += *text;
        }
    }
    json += '"';
}

void appendAttributes(Text& json, const struct stat& st) {
    appendMember(json, "s", st.st_size);
    appendMember(json, "b", st.st_blocks);
    appendMember(json, "m", st.st_mode);
    appendMember(json, "nl", static_cast<std::int64_t>(st.st_nlink));
    appendMember(json, "at", st.st_atime);
    appendMember(json, "mt", st.st_mtime);
    appendMember(json, "ct", st.st_ctime);
}

// 0 or a negated error number.
int statListed(int directory, const std::string& path, const char* name, struct stat& st) {
    if (fstatat(directory, name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
        return -errno;
    }
    return S_ISLNK(st.st_mode) ? statInTree(path.empty() ? name : path + "/" + name, st) : 0;
}

} // namespace

Text attributeObject(const struct stat& st) {
    Text json = "{";
    appendAttributes(json, st);
    return json + "}";
}

Text statisticsObject(const struct statvfs& volume) {
    std::uint64_t unit = volume.f_frsize;
    unsigned shift = 0;
    while ((volume.f_blocks >> shift) > INT32_MAX && unit < (1U << 30)) {
        ++shift;
        unit *= 2;
    }
    Text json = "{";
    appendMember(json, "bsize", static_cast<std::int64_t>(volume.f_bsize));
    appendMember(json, "frsize", static_cast<std::int64_t>(unit));
    appendMember(json, "blocks", static_cast<std::int64_t>(volume.f_blocks >> shift));
    appendMember(json, "bfree", static_cast<std::int64_t>(volume.f_bfree >> shift));
    appendMember(json, "bavail", static_cast<std::int64_t>(volume.f_bavail >> shift));
    appendMember(json, "namemax", static_cast<std::int64_t>(volume.f_namemax));
    return json + "}";
}

Text statusEnvelope(int code) {
    Text json = "{";
    appendMember(json, "hc", code);
    return json + "}";
}

int listingObject(int descriptor, const std::string& path, Text& listing) {
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(fdopendir(descriptor), closedir);
    if (directory == nullptr) {
        const int error = errno;
        close(descriptor);
        return -error;
    }
    listing = "{\"entries\":[";
    unsigned leftOut = 0;
    int error = 0;
    for (;;) {
        errno = 0;
        const dirent* item = readdir(directory.get());
        if (item == nullptr) {
            error = errno;
            break;
        }
        const char* name = item->d_name;
        if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) {
            continue;
        }
        if (!isUtf8(name)) {
            ++leftOut;
            continue;
        }
        struct stat st;
        // An entry whose attributes cannot be read is left out, so that the others are shown. But a shortage of memory
        // or descriptors fails the whole listing, because it must not hide entries.
        if (const int missing = statListed(descriptor, path, name, st); missing != 0) {
            if (statusOf(missing) != MHD_HTTP_SERVICE_UNAVAILABLE) {
                continue;
            }
            error = -missing;
            break;
        }
        listing += listing.back() == '[' ? "{" : ",{";
        appendMember(listing, "t", S_ISDIR(st.st_mode) ? listedDirectory : IFTODT(st.st_mode));
        appendAttributes(listing, st);
        listing += ",\"n\":";
        appendString(listing, name);
        listing += '}';
    }
    listing += "]}";
    if (leftOut != 0) {
        Text shown;
        appendString(shown, ("/" + path).c_str());
        std::fprintf(stderr, "kelvane_storage: %s: left out %u name(s) that are not UTF-8\n", shown.c_str(), leftOut);
    }
    return -error;
}
