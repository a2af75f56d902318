#include "storage/request_log.h"

#include <arpa/inet.h>
#include <atomic>
#include <cctype>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <netinet/in.h>
#include <new>
#include <system_error>

namespace {

std::atomic<int> log = -1;

std::string encoded(std::string_view text) {
    std::string result;
    for (const unsigned char c : text) {
        char escape[4] = {static_cast<char>(c)};
        if (std::isalnum(c) == 0 && std::string_view("-._~/").find(c) == std::string_view::npos) {
            std::snprintf(escape, sizeof escape, "%%%02X", c);
        }
        result += escape;
    }
    return result;
}

std::string addressText(const sockaddr* address) {
    char text[INET6_ADDRSTRLEN] = "";
    if (address->sa_family == AF_INET) {
        inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(address)->sin_addr, text, sizeof text);
    } else if (address->sa_family == AF_INET6) {
        inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr, text, sizeof text);
    }
    return text;
}

} // namespace

void openLog(const std::string& file) {
    Descriptor opened(file == "-" ? fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0)
                                  : open(file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY,
                                         S_IRUSR | S_IWUSR | S_IRGRP));
    // The new file takes the descriptor of the old one, because other threads may be writing to that descriptor.
    if (opened.number < 0 || (log >= 0 && dup3(opened.number, log, O_CLOEXEC) < 0)) {
        throw std::system_error(errno, std::generic_category(), file);
    }
    if (log < 0) {
        log = std::exchange(opened.number, -1);
    }
}

void writeLog(const sockaddr* client, const Request& request, const Reply& reply) try {
    if (log < 0) {
        return;
    }
    char time[32];
    const std::time_t now = std::time(nullptr);
    std::tm parts = {};
    std::strftime(time, sizeof time, "%FT%TZ", gmtime_r(&now, &parts));
    const Target& target = request.target;
    const bool isWrite = target.action == Action::write;
    const std::string words[] = {
        time,
        request.forwardedFor.empty() ? addressText(client) : request.forwardedFor,
        encoded(request.user),
        request.understood ? std::string(nameOf(target.action)) : "",
        request.understood ? encoded("/" + target.path) : "",
        reply.status != 0 ? std::to_string(reply.status) : "",
        std::to_string(isWrite ? request.received : reply.length),
    };
    std::string line;
    for (const std::string& word : words) {
        line.append(line.empty() ? "" : " ").append(word.empty() ? "-" : word);
    }
    line += (request.understood && target.action == Action::rename ? " " + encoded("/" + *target.to) : "") + "\n";
    // In one piece, so that the lines of several threads do not mix.
    static_cast<void>(write(log, line.data(), line.size()) == 0);
} catch (const std::bad_alloc&) {
    return;
}
