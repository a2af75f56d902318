// The HTTP side of the server.
#pragma once

#include <cstdint>
#include <string>
#include <sys/socket.h>

struct MHD_Daemon;

struct ServiceOptions {
    std::string prefix = "/"; // what every path begins with
    bool readOnly = false;
    unsigned threads = 4;
    unsigned connections = 8; // at most, at once
    std::string certificate;  // PEM texts; both empty without TLS
    std::string key;
};

// Starts to serve the opened tree on `address`; null when the port cannot be had.
MHD_Daemon* startService(const ServiceOptions& options, const sockaddr* address);

// The port that the service listens on.
std::uint16_t servicePort(MHD_Daemon* daemon);

// Ends the service; requests that are being answered are cut off.
void stopService(MHD_Daemon* daemon);
