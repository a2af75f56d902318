#include "storage/settings.h"

#include "storage/descriptor.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>

namespace {

constexpr std::size_t largestFile = 1 << 20;
constexpr std::size_t secretLength = 22;
constexpr std::string_view base64url = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

std::string errorOf(const std::string& file) {
    return file + ": " + std::strerror(errno);
}

} // namespace

std::string readSettings(const std::string& file, bool isPrivate, std::string& text) {
    const Descriptor opened(open(file.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat st;
    if (opened.number < 0 || fstat(opened.number, &st) != 0) {
        return errorOf(file);
    }
    if (isPrivate && (st.st_mode & S_IRWXO) != 0) {
        return file + ": others can read it; \"chmod o=\" mends that";
    }
    text.clear();
    char part[4096];
    ssize_t count = 0;
    while ((count = read(opened.number, part, sizeof part)) > 0 && text.size() <= largestFile) {
        text.append(part, count);
    }
    return count < 0      ? errorOf(file)
           : count > 0    ? file + ": it is too large"
           : text.empty() ? file + ": it is empty"
                          : "";
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
    // A crash leaves an empty file behind, and the next start fills it. The lock lets one of several starts do so.
    const Descriptor opened(open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR));
    struct stat st;
    std::string error;
    if (opened.number >= 0 && flock(opened.number, LOCK_EX) == 0 && fstat(opened.number, &st) == 0 && st.st_size == 0 &&
        S_ISREG(st.st_mode) && (st.st_mode & S_IRWXO) == 0) {
        error = makeSecret(secret);
        const std::string line = secret + "\n";
        if (error.empty() && (write(opened.number, line.data(), line.size()) != static_cast<ssize_t>(line.size()) ||
                              fsync(opened.number) != 0)) {
            error = errorOf(file);
            static_cast<void>(ftruncate(opened.number, 0) == 0);
        }
        return error;
    }
    error = readSettings(file, true, secret);
    secret.erase(std::min(secret.find('\n'), secret.size()));
    if (error.empty() && (secret.size() != secretLength || secret.find_first_not_of(base64url) != std::string::npos)) {
        error = file + ": its first line is not a secret of 22 letters, digits, \"-\" and \"_\"";
    }
    return error;
}
