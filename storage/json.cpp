#include "storage/json.h"

#include <charconv>
#include <cstdint>
#include <cstdio>
#include <dirent.h>

namespace {

constexpr int listedDirectory = 4;

void appendMember(std::string& json, const char* key, std::int64_t value) {
    char digits[24];
    const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
    json += json.back() == '{' ? "\"" : ",\"";
    json.append(key).append("\":").append(digits, end - digits);
}

void appendAttributes(std::string& json, const struct stat& st) {
    appendMember(json, "s", st.st_size);
    appendMember(json, "b", st.st_blocks);
    appendMember(json, "m", st.st_mode);
    appendMember(json, "nl", static_cast<std::int64_t>(st.st_nlink));
    appendMember(json, "at", st.st_atime);
    appendMember(json, "mt", st.st_mtime);
    appendMember(json, "ct", st.st_ctime);
}

} // namespace

std::string attributeObject(const struct stat& st) {
    std::string json = "{";
    appendAttributes(json, st);
    return json + "}";
}

std::string statisticsObject(const struct statvfs& volume) {
    std::uint64_t unit = volume.f_frsize;
    unsigned shift = 0;
    while ((volume.f_blocks >> shift) > INT32_MAX && unit < (1U << 30)) {
        ++shift;
        unit *= 2;
    }
    std::string json = "{";
    appendMember(json, "bsize", static_cast<std::int64_t>(volume.f_bsize));
    appendMember(json, "frsize", static_cast<std::int64_t>(unit));
    appendMember(json, "blocks", static_cast<std::int64_t>(volume.f_blocks >> shift));
    appendMember(json, "bfree", static_cast<std::int64_t>(volume.f_bfree >> shift));
    appendMember(json, "bavail", static_cast<std::int64_t>(volume.f_bavail >> shift));
    appendMember(json, "namemax", static_cast<std::int64_t>(volume.f_namemax));
    return json + "}";
}

std::string statusEnvelope(int code) {
    std::string json = "{";
    appendMember(json, "hc", code);
    return json + "}";
}

void appendElement(std::string& listing, const char* name, const struct stat& st) {
    listing += '{';
    appendMember(listing, "t", S_ISDIR(st.st_mode) ? listedDirectory : IFTODT(st.st_mode));
    appendAttributes(listing, st);
    listing += ",\"n\":";
    appendString(listing, name);
    listing += '}';
}

void appendString(std::string& json, const char* text) {
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
