#include "tests/scripted_calls.h"

#include "cache/path_lookup.h"
#include "cache/root.h"
#include "kelvane_vfs/checked_text.h"
#include "kelvane_vfs/process.h"
#include "kelvane_vfs/transport.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <gtest/gtest.h>
#include <poll.h>
#include <sstream>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>

time_t clockNow = 1000, clockStep = 0;

// These replace the system's functions (linked with --wrap).
extern "C" time_t __wrap_time(time_t*) {
    return (clockNow += clockStep) - clockStep;
}
extern "C" uid_t __wrap_getuid() {
    return 65534;
}
extern "C" gid_t __wrap_getgid() {
    return 4321;
}

std::string bodyText(const std::string& body) {
    const std::size_t hash = std::hash<std::string>()(body);
    return body.size() < 20 ? body : std::to_string(body.size()) + " bytes " + std::to_string(hash);
}

namespace {

using Strings = std::vector<std::string>;

// Written by parent and child, with one file position.
const int record = memfd_create("transcript", MFD_CLOEXEC);

Strings split(const std::string& text, const std::string& separator) {
    Strings parts;
    for (std::size_t from = 0, to = 0; to != std::string::npos; from = to + separator.size()) {
        to = text.find(separator, from);
        parts.push_back(text.substr(from, to - from));
    }
    return parts;
}

void replaceAll(std::string& text, const std::string& from, const std::string& to) {
    for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
        text.replace(at, from.size(), to);
    }
}

void note(const std::string& tag, std::string text) {
    text.erase(text.size() - (text.ends_with('\n') ? 1 : 0));
    for (const std::string& line : split(text, "\n")) {
        EXPECT_GT(dprintf(record, "%s%s\n", tag.c_str(), line.c_str()), 0);
    }
}

FILE* noteStream(const char* tag) {
    const auto noteOutput = [](void* cookie, const char* data, std::size_t size) {
        note(static_cast<char*>(cookie), std::string(data, size));
        return static_cast<ssize_t>(size);
    };
    FILE* stream = fopencookie(const_cast<char*>(tag), "w", {nullptr, noteOutput, nullptr, nullptr});
    setvbuf(stream, nullptr, _IOLBF, 0);
    return stream;
}

std::string http(const std::string& reply) {
    if (reply.starts_with("keep")) {
        std::string kept = "keep" + http(reply.substr(4));
        replaceAll(kept, "Connection: close\r\n", "");
        return kept;
    }
    if (reply.empty() || std::isdigit(reply[0]) == 0) {
        return reply;
    }
    const std::string body = reply.substr(std::min<std::size_t>(reply.size(), 4));
    const std::string size = reply.starts_with("204") ? "" : "\r\nContent-Length: " + std::to_string(body.size());
    return "HTTP/1.1 " + reply.substr(0, 3) + " OK\r\nConnection: close" + size + "\r\n\r\n" + body;
}

void takeRequest(FILE* incoming, int connection) {
    std::string request, body;
    for (char line[8192]; std::fgets(line, sizeof line, incoming) != nullptr && *line != '\r';) {
        const std::string text(line, std::strlen(line) - 2);
        if (text.starts_with("Content-Length: ")) {
            body.resize(std::stoul(text.substr(16)));
        } else if (text.starts_with("Expect: ")) {
            send(connection, "HTTP/1.1 100 Continue\r\n\r\n", 25, MSG_NOSIGNAL);
        } else if (!text.starts_with("Host: ") && !text.starts_with("Accept: ")) {
            request += text.substr(0, text.find(" HTTP/")) + "|";
        }
    }
    body.resize(std::fread(body.data(), 1, body.size(), incoming));
    note("> ", request + bodyText(body));
}

// Takes one request and answers it. A reply that begins with "reset" has the connection reset; one that begins with
// "keep" has it closed when one more request has come, which gets nothing.
void serve(int listener, const std::string& reply) {
    const int connection = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    FILE* incoming = fdopen(connection, "r");
    takeRequest(incoming, connection);
    const bool resets = reply.starts_with("reset");
    const bool keeps = reply.starts_with("keep");
    const std::size_t word = resets ? 5 : keeps ? 4 : 0;
    const linger now = {resets ? 1 : 0, 0};
    send(connection, reply.data() + word, reply.size() - word, MSG_NOSIGNAL);
    if (keeps) {
        takeRequest(incoming, -1);
    }
    setsockopt(connection, SOL_SOCKET, SO_LINGER, &now, sizeof now);
    std::fclose(incoming);
}

[[noreturn]] void runChild(std::size_t start, const std::function<long()>& call) {
    stdout = noteStream("O ");
    stderr = noteStream("E ");
    alarm(100);
    finderInformed = 1;
    initLibCurl();
    if (start > 0) {
        DirInit();
    }
    for (std::size_t i = 1; i < start; i += 2) {
        DirGetEntry(i == 1 ? "/d/x" : "/dir x/x");
    }
    EXPECT_EQ(lseek(record, 0, SEEK_SET) + ftruncate(record, 0), 0);
    note("= ", std::to_string(call()));
    // A lock that a call keeps would stop every other thread.
    if (dirEntryTop != nullptr) {
        std::thread(DirLock).join();
    }
    std::exit(0);
}

std::string textOf(std::size_t start, const std::function<long()>& call, const Strings& replies) {
    EXPECT_EQ(lseek(record, 0, SEEK_SET) + ftruncate(record, 0), 0);
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t size = sizeof address;
    EXPECT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), size) + listen(listener, 8), 0);
    getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size);
    const std::string host = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
    checkedFormat(baseURL, sizeof baseURL, "http://%s/", host.c_str());
    std::fflush(stdout);
    const pid_t process = fork();
    if (process == 0) {
        runChild(start, call);
    }
    pollfd waits[] = {{listener, POLLIN, 0}, {static_cast<int>(syscall(SYS_pidfd_open, process, 0)), POLLIN, 0}};
    for (std::size_t i = 0; poll(waits, 2, -1) > 0 && waits[0].revents != 0; ++i) {
        serve(listener, i < replies.size() ? http(replies[i]) : "");
    }
    int status = 0;
    waitpid(process, &status, 0);
    close(waits[1].fd);
    close(listener);
    const int end = WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status);
    std::string text = transcript() + (WIFSIGNALED(status) ? "signal " : "exit ") + std::to_string(end);
    replaceAll(text, host, "HOST");
    // What newer releases of libcurl say in other words, and an empty query, which they leave out.
    replaceAll(text, "Could not connect", "Couldn't connect");
    replaceAll(text, "end of response with 8 bytes missing", "transfer closed with 8 bytes remaining to read");
    replaceAll(text, "> GET /|A: 1", "> GET /?|A: 1");
    return text;
}

bool isPlumbing(const std::string& line) {
    const auto starts = [&](const char* start) { return line.starts_with(start); };
    return starts("E getURL: ") || starts("O getURL: ") || starts("O DirReadOriginal") || starts("O encoded_path=") ||
           (starts("O ") && line.ends_with(" bytes retrieved"));
}

Strings fieldsOf(std::string text) {
    replaceAll(text, "\n", "; ");
    for (const auto& [word, meaning] : words) {
        replaceAll(text, word, meaning);
    }
    return text.empty() ? Strings() : split(text, "; ");
}

} // namespace

std::string transcript() {
    std::string text(lseek(record, 0, SEEK_CUR), '\0');
    EXPECT_EQ(pread(record, text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
    return text;
}

void expectRow(const std::string& start, const std::function<long()>& call, const std::string& row, int atLine,
               const char* inFile) {
    const testing::ScopedTrace trace(inFile, atLine, row);
    Strings replies = fieldsOf(start);
    const std::size_t taken = replies.size();
    std::string expected, text;
    bool plumbing = false, ends = true;
    for (std::string field : fieldsOf(row)) {
        field.erase(0, field.find_first_not_of(' '));
        const std::size_t arrow = std::min(field.find("=> "), field.size());
        if (arrow < field.size()) {
            replies.push_back(field.substr(arrow + 3));
        }
        expected += arrow == 0 ? "" : "\n" + field.substr(0, arrow - (arrow < field.size() ? 1 : 0));
        plumbing = plumbing || isPlumbing(field);
        ends = field.starts_with("exit ") || field.starts_with("signal ");
    }
    expected += ends ? "" : "\nexit 0";
    for (const std::string& line : split(textOf(taken, call, replies), "\n")) {
        text += plumbing || !isPlumbing(line) ? "\n" + line : "";
    }
    if (expected.starts_with("\n...\n") && text.ends_with(expected.substr(4))) {
        text = expected;
    }
    EXPECT_EQ(text, expected);
}
