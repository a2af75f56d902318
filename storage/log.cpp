#include "storage/log.h"

#include "storage/connections.h"
#include "storage/reply.h"

#include <atomic>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <ctime>

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
} // namespace

void say(const std::string& text) {
    std::fprintf(stderr, "kelvane_storage: %s\n", text.c_str());
}

void report(unsigned status, const char* detail) {
    using Clock = std::chrono::steady_clock;
    static struct {
        unsigned status;
        const char* what;
        std::atomic<Clock::time_point> due;
    } kinds[] = {{507, "the disk is full"},
                 {503, "memory or descriptors are short"},
                 {0, "clients have to wait"},
                 {500, "the disk fails"}};
    auto* const kind = std::find_if(std::begin(kinds), std::end(kinds) - 1,
                                    [status](const auto& each) { return each.status == status; });
    const Clock::time_point now = Clock::now();
    Clock::time_point expected = kind->due;
    if (now >= expected && kind->due.compare_exchange_strong(expected, now + std::chrono::minutes(1))) {
        std::fprintf(stderr, "kelvane_storage: %s: %s\n", kind->what, detail);
    }
}

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
    const std::string words[] = {
        time,
        request.forwardedFor.empty() ? addressText(*client) : request.forwardedFor,
        encoded(request.user),
        request.understood ? std::string(nameOf(target.action)) : "",
        request.understood ? encoded("/" + target.path) : "",
        reply.status != 0 ? std::to_string(reply.status) : "",
        std::to_string(target.action == Action::write ? request.received : reply.length),
    };
    std::string line;
    for (const std::string& word : words) {
        line.append(line.empty() ? "" : " ").append(word.empty() ? "-" : word);
    }
    line += (request.understood && target.action == Action::rename ? " " + encoded("/" + *target.to) : "") + "\n";
    // In one piece, so that the lines of several threads do not mix.
    static_cast<void>(write(log, line.data(), line.size()) == 0);
} catch (const std::bad_alloc&) { // no line
}
