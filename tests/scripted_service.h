// A storage service that answers from a script and records every request whole.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

struct Reply {
    std::string bytes;     // as they go over the wire
    bool close = false;    // close the connection afterwards
    bool reset = false;    // reset it instead
    std::size_t piece = 0; // send that many bytes at a time; 0: all at once
    int delayMilliseconds = 0;
};

struct ScriptedService {
    std::uint16_t port = 0;
    std::map<std::string, Reply> replies;                // by "METHOD target"; anything else is answered with 404
    std::function<void(const std::string&)> beforeReply; // called with each recorded request
    std::mutex lock;
    std::vector<std::string> requests;         // "METHOD target", " | Header: value" for each extra header, " + N bytes"
    std::map<std::string, std::string> bodies; // the last body sent with each request
    int listener = -1;
    std::atomic<bool> stopping{false};
    std::thread acceptor;
    std::vector<std::thread> workers;
    std::vector<int> connections;
};

Reply httpReply(int status, const std::string& body, const std::string& extraHeaders = "");

// Answers "METHOD target" with `reply` from now on.
void setReply(ScriptedService& service, const std::string& request, const Reply& reply);
void startScript(ScriptedService& service);
void stopScript(ScriptedService& service);

// The requests since the last call.
std::vector<std::string> takeRequests(ScriptedService& service);

// JSON of an attribute object, and of a listing whose elements are given whole.
std::string attributesJson(long long size, unsigned mode);
std::string listingJson(const std::vector<std::string>& elements);
std::string element(const std::string& name, int type, long long size = 0, unsigned mode = 0);

// A connection to a loopback port, or -1.
int connectTo(std::uint16_t port);

// Sends `text` to a loopback port and returns everything that comes back until the other side closes or
// `milliseconds` pass without a byte (then `silence` follows); half of the connection is shut down after sending if `finish` says so.
inline const std::string silence = " [silence]";
std::string talk(std::uint16_t port, const std::string& text, int milliseconds = 60000, bool finish = false);
