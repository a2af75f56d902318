#include "tests/scripted_service.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sstream>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace {

bool sendAll(int connection, const std::string& bytes, std::size_t piece) {
    for (std::size_t sent = 0; sent < bytes.size();) {
        const std::size_t count = std::min(piece != 0 ? piece : bytes.size(), bytes.size() - sent);
        const ssize_t result = send(connection, bytes.data() + sent, count, MSG_NOSIGNAL);
        if (result <= 0) {
            return false;
        }
        sent += result;
    }
    return true;
}

bool receiveMore(int connection, std::string& data) {
    char area[65536];
    const ssize_t count = recv(connection, area, sizeof area, 0);
    data.append(area, count > 0 ? count : 0);
    return count > 0;
}

// Reads one request off `data` and the connection; false at the end of the connection.
bool receiveRequest(int connection, std::string& data, std::string& line, std::string& record, std::string& body) {
    std::size_t end = 0;
    while ((end = data.find("\r\n\r\n")) == std::string::npos) {
        if (!receiveMore(connection, data)) {
            return false;
        }
    }
    std::istringstream head(data.substr(0, end + 2));
    data.erase(0, end + 4);
    std::string field;
    std::getline(head, field);
    line = record = field.substr(0, field.rfind(" HTTP/"));
    std::size_t length = 0;
    bool sized = false;
    while (std::getline(head, field)) {
        field.pop_back();
        const std::string name = field.substr(0, field.find(':'));
        if (strcasecmp(name.c_str(), "Content-Length") == 0) {
            length = std::stoul(field.substr(name.size() + 1));
            sized = true;
        } else if (strcasecmp(name.c_str(), "Expect") == 0) {
            sendAll(connection, "HTTP/1.1 100 Continue\r\n\r\n", 0);
        } else if (strcasecmp(name.c_str(), "Host") != 0 && strcasecmp(name.c_str(), "Accept") != 0) {
            record += " | " + field;
        }
    }
    while (data.size() < length) {
        if (!receiveMore(connection, data)) {
            return false;
        }
    }
    body = data.substr(0, length);
    data.erase(0, length);
    record += sized ? " + " + std::to_string(length) + " bytes" : "";
    return true;
}

void serveConnection(ScriptedService* service, int connection) {
    std::string data;
    std::string line;
    std::string record;
    std::string body;
    while (receiveRequest(connection, data, line, record, body)) {
        Reply reply = httpReply(404, "");
        {
            const std::lock_guard<std::mutex> guard(service->lock);
            service->requests.push_back(record);
            service->bodies[line] = body;
            if (service->beforeReply) {
                service->beforeReply(line);
            }
            const auto scripted = service->replies.find(line);
            if (scripted != service->replies.end()) {
                reply = scripted->second;
            }
        }
        usleep(reply.delayMilliseconds * 1000);
        if (!sendAll(connection, reply.bytes, reply.piece) || reply.close) {
            break;
        }
        if (reply.reset) {
            const linger now = {1, 0};
            setsockopt(connection, SOL_SOCKET, SO_LINGER, &now, sizeof now);
            break;
        }
    }
    const std::lock_guard<std::mutex> guard(service->lock);
    std::erase(service->connections, connection);
    close(connection);
}

void acceptConnections(ScriptedService* service) {
    for (;;) {
        const int connection = accept4(service->listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (connection < 0 || service->stopping) {
            close(connection);
            return;
        }
        const int on = 1;
        setsockopt(connection, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        const std::lock_guard<std::mutex> guard(service->lock);
        service->connections.push_back(connection);
        service->workers.emplace_back(serveConnection, service, connection);
    }
}

} // namespace

Reply httpReply(int status, const std::string& body, const std::string& extraHeaders) {
    return {"HTTP/1.1 " + std::to_string(status) + " Scripted\r\n" + extraHeaders +
            (status == 204 ? "" : "Content-Length: " + std::to_string(body.size()) + "\r\n") + "\r\n" + body};
}

void startScript(ScriptedService& service) {
    service.stopping = false;
    service.workers.clear();
    service.listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    static_cast<void>(bind(service.listener, reinterpret_cast<sockaddr*>(&address), size));
    listen(service.listener, 64);
    getsockname(service.listener, reinterpret_cast<sockaddr*>(&address), &size);
    service.port = ntohs(address.sin_port);
    service.acceptor = std::thread(acceptConnections, &service);
}

void stopScript(ScriptedService& service) {
    service.stopping = true;
    shutdown(service.listener, SHUT_RDWR);
    service.acceptor.join();
    close(service.listener);
    {
        const std::lock_guard<std::mutex> guard(service.lock);
        for (const int connection : service.connections) { shutdown(connection, SHUT_RDWR); }
    }
    for (std::thread& worker : service.workers) { worker.join(); }
}

void setReply(ScriptedService& service, const std::string& request, const Reply& reply) {
    const std::lock_guard<std::mutex> guard(service.lock);
    service.replies[request] = reply;
}

std::vector<std::string> takeRequests(ScriptedService& service) {
    const std::lock_guard<std::mutex> guard(service.lock);
    return std::exchange(service.requests, {});
}

std::string attributesJson(long long size, unsigned mode) {
    return "{\"s\":" + std::to_string(size) + ",\"b\":8,\"m\":" + std::to_string(mode) + ",\"nl\":1,\"at\":11,\"mt\":22,\"ct\":33}";
}

std::string listingJson(const std::vector<std::string>& elements) {
    std::string json = "{\"entries\":[";
    for (const std::string& one : elements) { json += (json.back() == '[' ? "" : ",") + one; }
    return json + "]}";
}

std::string element(const std::string& name, int type, long long size, unsigned mode) {
    return "{\"n\":\"" + name + "\",\"t\":" + std::to_string(type) + "," + attributesJson(size, mode != 0 ? mode : type == 4 ? 040755 : 0100644).substr(1);
}

int connectTo(std::uint16_t port) {
    const int connection = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(connection, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
        return connection;
    }
    close(connection);
    return -1;
}

std::string talk(std::uint16_t port, const std::string& text, int milliseconds, bool finish) {
    const int connection = connectTo(port);
    std::string data;
    if (connection >= 0) {
        sendAll(connection, text, 0);
        if (finish) {
            shutdown(connection, SHUT_WR);
        }
        pollfd wait = {connection, POLLIN, 0};
        int ready = 0;
        while ((ready = poll(&wait, 1, milliseconds)) > 0 && receiveMore(connection, data)) {}
        data += ready == 0 ? silence : "";
    }
    close(connection);
    return data;
}
