// Simulates distant servers on one machine: relays TCP connections and delays every byte by half a round trip.
//   relay MILLISECONDS PORT ...   prints a line "PORT NEW_PORT" for each server, all on 127.0.0.1, and serves until it
//   is ended
// A new connection costs a round trip, as on a real network. No more bytes are under way in one direction of it than
// the kernel's largest TCP window holds. Bandwidth is not limited, and no packet is lost.
#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <memory>
#include <mutex>
#include <netinet/tcp.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t largestWindow = 6 << 20;
constexpr std::size_t pieceSize = 256 << 10;

std::chrono::nanoseconds roundTrip;

struct Piece {
    Clock::time_point due;
    std::vector<char> bytes; // none: the end
};

// One direction of a connection, with the bytes that are under way in it.
struct Line {
    std::shared_ptr<int> from;
    std::shared_ptr<int> to;
    Clock::time_point opened; // nothing arrives before
    std::deque<Piece> pieces;
    std::size_t size = 0;
    std::mutex mutex;
    std::condition_variable changed;
};

std::shared_ptr<int> owned(int socket) {
    constexpr int on = 1;
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return {new int(socket), [](const int* descriptor) {
                close(*descriptor);
                delete descriptor;
            }};
}

sockaddr_in loopback(int port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

void receive(const std::shared_ptr<Line>& line) {
    ssize_t length = 0;
    do {
        std::vector<char> bytes(pieceSize);
        length = std::max<ssize_t>(recv(*line->from, bytes.data(), bytes.size(), 0), 0);
        bytes.resize(length);
        std::unique_lock lock(line->mutex);
        line->changed.wait(lock, [&] { return line->size < largestWindow; });
        line->pieces.push_back({std::max(Clock::now() + roundTrip / 2, line->opened), std::move(bytes)});
        line->size += length;
        line->changed.notify_all();
    } while (length > 0);
}

void deliver(const std::shared_ptr<Line>& line) {
    for (bool open = true; open;) {
        std::unique_lock lock(line->mutex);
        line->changed.wait(lock, [&] { return !line->pieces.empty(); });
        const Piece piece = std::move(line->pieces.front());
        line->pieces.pop_front();
        lock.unlock();
        std::this_thread::sleep_until(piece.due);
        open = !piece.bytes.empty();
        for (std::size_t sent = 0; sent < piece.bytes.size();) {
            const ssize_t count = send(*line->to, piece.bytes.data() + sent, piece.bytes.size() - sent, 0);
            sent = count > 0 ? sent + count : piece.bytes.size();
        }
        lock.lock();
        line->size -= piece.bytes.size();
        line->changed.notify_all();
    }
    shutdown(*line->to, SHUT_WR);
}

void connectThrough(const std::shared_ptr<int>& client, int port) {
    const std::shared_ptr<int> server = owned(socket(AF_INET, SOCK_STREAM, 0));
    const sockaddr_in address = loopback(port);
    if (connect(*server, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        return;
    }
    // The client's first bytes would leave when the answer to its connection request is back.
    const Clock::time_point now = Clock::now();
    for (const bool forth : {true, false}) {
        const auto line = std::make_shared<Line>();
        line->from = forth ? client : server;
        line->to = forth ? server : client;
        line->opened = now + roundTrip * 3 / 2;
        std::thread(receive, line).detach();
        std::thread(deliver, line).detach();
    }
}

void serve(int listener, int port) {
    for (int client = 0; (client = accept(listener, nullptr, nullptr)) >= 0;) {
        connectThrough(owned(client), port);
    }
}

} // namespace

int main(int argc, char* argv[]) {
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    prctl(PR_SET_TIMERSLACK, 1);
    std::signal(SIGPIPE, SIG_IGN);
    roundTrip = std::chrono::nanoseconds(argc > 2 ? std::llround(std::atof(argv[1]) * 1e6) : 0);
    for (int i = 2; i < argc; ++i) {
        const int listener = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address = loopback(0);
        socklen_t size = sizeof address;
        if (bind(listener, reinterpret_cast<sockaddr*>(&address), size) != 0 || listen(listener, SOMAXCONN) != 0 ||
            getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
            std::perror("relay");
            return 1;
        }
        std::printf("%s %d\n", argv[i], ntohs(address.sin_port));
        std::thread(serve, listener, std::atoi(argv[i])).detach();
    }
    std::fflush(stdout);
    pause();
}
