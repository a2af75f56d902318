#include "tests/scripted_calls.h"

#include "cache/root.h"
#include "kelvane_vfs/checked_text.h"
#include "kelvane_vfs/process.h"
#include "kelvane_vfs/transport.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <gtest/gtest.h>
#include <list>
#include <poll.h>
#include <sstream>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>

bool traced = false;
time_t clockNow = 1000, clockStep = 0;

// These replace the system's functions (linked with --wrap).
#define REPLACE(type, call, result)                                                                                    \
    extern "C" type __wrap_##call {                                                                                    \
        return result;                                                                                                 \
    }
REPLACE(time_t, time(time_t*), (clockNow += clockStep) - clockStep)
REPLACE(uid_t, getuid(), 65534)
REPLACE(gid_t, getgid(), 4321)

namespace {

const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);

// The transcript, written by parent and child with one file position.
const int record = memfd_create("transcript", MFD_CLOEXEC);

std::string replaceAll(std::string text, const std::string& from, const std::string& to) {
    for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
        text.replace(at, from.size(), to);
    }
    return text;
}

void note(const std::string& tag, const std::string& text) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        bool hidden = false;
        for (const char* part : {"getURL: ", "OriginalEncodingPath", "encoded_path=", " bytes retrieved", "CF: "}) {
            hidden = hidden || (!traced && line.find(part) != std::string::npos);
        }
        line = hidden ? "" : tag + line + "\n";
        EXPECT_EQ(write(record, line.data(), line.size()), static_cast<ssize_t>(line.size()));
    }
}

FILE* noteStream(const char* tag) {
    const auto noteOutput = [](void* cookie, const char* data, std::size_t size) {
        note(static_cast<char*>(cookie), {data, size});
        return static_cast<ssize_t>(size);
    };
    FILE* stream = fopencookie(const_cast<char*>(tag), "w", {nullptr, noteOutput, nullptr, nullptr});
    setvbuf(stream, nullptr, _IOLBF, 0);
    return stream;
}

[[noreturn]] void runChild(const std::string& row) {
    stdout = noteStream("O ");
    stderr = noteStream("E ");
    alarm(100);
    finderInformed = 1;
    initLibCurl();
    std::list<std::string> fields; // what calls keep of their arguments lives as long as the child
    for (std::istringstream lines(row); std::getline(lines, fields.emplace_back());) {
        if (fields.back().starts_with("$ ")) {
            note("", fields.back());
            char* rest = fields.back().data() + 2;
            const auto& call = calls.at(strsep(&rest, " "));
            std::vector<char*> arguments;
            while (rest != nullptr) {
                arguments.push_back(strsep(&rest, ","));
            }
            const std::optional<long> result = call(arguments);
            note("= ", result ? std::to_string(*result) : "");
        }
    }
    // A lock that a call keeps would stop every other thread.
    if (dirEntryTop != nullptr) {
        std::thread(DirLock).join();
    }
    std::exit(0);
}

void takeRequest(FILE* connection) {
    std::string request, body;
    for (char line[8192]; std::fgets(line, sizeof line, connection) != nullptr && *line != '\r';) {
        const std::string text(line, std::strcspn(line, "\r")), name = text.substr(0, text.find(' '));
        if (name == "Content-Length:") {
            body.resize(std::stoul(text.substr(name.size())));
        } else if (name != "Host:" && name != "Accept:" && name != "Expect:") {
            request += text.substr(0, text.find(" HTTP/")) + "|";
        }
    }
    body.resize(std::fread(body.data(), 1, body.size(), connection));
    const bool repeats = body.find_first_not_of(body[0]) == std::string::npos && !body.empty();
    note("> ", request + (repeats ? body.substr(0, 1) + "*" + std::to_string(body.size()) : body));
}

void serve(int descriptor, std::string answer) {
    FILE* connection = fdopen(descriptor, "r");
    takeRequest(connection);
    note("< ", answer);
    const bool resets = answer.starts_with("reset"), keeps = answer.starts_with("keep");
    answer.erase(0, resets ? 5 : keeps ? 4 : 0);
    if (std::isdigit(answer[0]) != 0) {
        const std::string body = answer.substr(std::min<std::size_t>(answer.size(), 4));
        answer = "HTTP/1.1 " + answer.substr(0, 3) + (keeps ? " OK" : " OK\r\nConnection: close") +
                 "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
    }
    answer = replaceAll(answer, "\\r\\n", "\r\n");
    send(descriptor, answer.data(), answer.size(), MSG_NOSIGNAL);
    if (keeps) {
        takeRequest(connection);
    }
    const linger now = {resets ? 1 : 0, 0};
    setsockopt(descriptor, SOL_SOCKET, SO_LINGER, &now, sizeof now);
    std::fclose(connection);
}

// What happens in a row.
std::string textOf(const std::string& row) {
    EXPECT_EQ(lseek(record, 0, SEEK_SET) + ftruncate(record, 0), 0);
    std::fflush(stdout);
    const pid_t process = fork();
    if (process == 0) {
        runChild(row);
    }
    std::istringstream fields(row);
    pollfd waits[] = {{listener, POLLIN, 0}, {static_cast<int>(syscall(SYS_pidfd_open, process, 0)), POLLIN, 0}};
    while (poll(waits, 2, -1) > 0 && waits[0].revents != 0) {
        std::string answer;
        while (std::getline(fields, answer) && !answer.starts_with("< ")) {
        }
        serve(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC), answer.erase(0, 2));
    }
    int status = 0;
    waitpid(process, &status, 0);
    close(waits[1].fd);
    const int end = WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status);
    note(WIFSIGNALED(status) ? "signal " : "exit ", end == 0 ? "" : std::to_string(end));
    return transcript();
}

void expectRow(std::string row) {
    for (const auto& [word, meaning] : words) {
        row = replaceAll(row, word, meaning);
    }
    std::istringstream fields(replaceAll(replaceAll(row, "; ", "\n"), "\n  ", "\n"));
    std::string start, end;
    std::vector<std::string> slots;
    for (std::string field; std::getline(fields, field);) {
        if (field == "..." || field.starts_with("? ")) {
            slots.push_back(field.replace(0, 1, "<") + "\n");
        } else if (!field.empty() && !field.starts_with("//")) {
            (slots.empty() ? start : end) += field + "\n";
        }
    }
    slots.resize(std::max<std::size_t>(slots.size(), 1)); // without any, all has to be the same
    for (const std::string& slot : slots) {
        const std::string expected = start + slot + end, text = textOf(expected);
        if (slot.empty() || !text.starts_with(start) || !text.ends_with(end)) {
            EXPECT_EQ(text, expected);
        }
    }
}

} // namespace

std::string transcript() {
    std::string text(lseek(record, 0, SEEK_CUR), '\0');
    EXPECT_EQ(pread(record, text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
    return text;
}

void expectRows(const char* file, int line, const std::string& start, const std::string& rows) {
    sockaddr_in address = {AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    auto* const any = reinterpret_cast<sockaddr*>(&address);
    socklen_t size = sizeof address;
    static const bool listens = bind(listener, any, size) == 0 && listen(listener, 8) == 0;
    EXPECT_TRUE(listens && getsockname(listener, any, &size) == 0);
    checkedFormat(baseURL, sizeof baseURL, "http://127.0.0.1:%d/", ntohs(address.sin_port));
    words["BASE"] = baseURL;
    for (std::size_t at = 0, next = 0; at < rows.size(); at = next) {
        next = std::min(rows.find("\n$ ", at + 1), rows.size());
        const std::string row = rows.substr(at, next - at);
        const testing::ScopedTrace trace(file, ++line, row);
        line += std::count(row.begin() + 1, row.end(), '\n');
        expectRow(start + row);
    }
}
