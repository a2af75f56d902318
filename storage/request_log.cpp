#include "storage/request_log.h"

#include <arpa/inet.h>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <netinet/in.h>
#include <new>
#include <unistd.h>

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
    char text[INET6_ADDRSTRLEN] = "-";
    if (address->sa_family == AF_INET) {
        inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(address)->sin_addr, text, sizeof text);
    } else if (address->sa_family == AF_INET6) {
        inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr, text, sizeof text);
    }
    return text;
}

} // namespace

int openLog(const std::string& file) {
    if (file == "-") {
        log = STDOUT_FILENO;
        return 0;
    }
    const int opened =
        open(file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, S_IRUSR | S_IWUSR | S_IRGRP);
    if (opened < 0) {
        return -errno;
    }
    // The new file takes the descriptor of the old one, because other threads may be writing to that descriptor.
    if (log < 0) {
        log = opened;
        return 0;
    }
    dup3(opened, log, O_CLOEXEC);
    close(opened);
    return 0;
}

bool isLogging() {
    return log >= 0;
}

void writeLog(const LogEntry& entry) try {
    char time[32];
    const std::time_t now = std::time(nullptr);
    std::tm parts = {};
    std::strftime(time, sizeof time, "%FT%TZ", gmtime_r(&now, &parts));
    std::string line = time;
    line += " " + addressText(entry.client) + " " + (entry.user.empty() ? "-" : encoded(entry.user));
    if (entry.target == nullptr) {
        line += " - -";
    } else {
        line.append(" ").append(nameOf(entry.target->action)).append(" ").append(encoded("/" + entry.target->path));
    }
    line += " " + (entry.status == 0 ? "-" : std::to_string(entry.status)) + " " + std::to_string(entry.bytes);
    if (entry.target != nullptr && entry.target->action == Action::rename) {
        line += " " + encoded("/" + entry.target->to);
    }
    line += "\n";
    // In one piece, so that the lines of several threads do not mix.
    static_cast<void>(write(log, line.data(), line.size()) == 0);
} catch (const std::bad_alloc&) {
    return;
}
