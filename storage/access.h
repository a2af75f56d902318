// Who may do what: browsers are refused, everybody else has to know the secret, or a name and its password.
#pragma once

#include <microhttpd.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <vector>

struct AccessOptions {
    std::string base = "/";         // what every path begins with; ends in the secret and a slash where there is one
    std::vector<std::string> hosts; // names of the server, besides localhost and its addresses
    bool readOnly = false;          // for everybody
};

// Who sent a request.
struct Visitor {
    std::string user; // empty where nobody has a name
    bool readOnly = true;
};

// Judges a request by its request line's target as it arrived and by its headers, before anything is opened: 0 and who
// sent it, or the HTTP status that refuses it. The answer does not depend on how much of the secret was right.
unsigned admit(MHD_Connection* connection, const AccessOptions& options, std::string_view text, Visitor& visitor);

// The functions below return an empty text, or what is wrong in words.

// Reads a file that is not empty. A private one must not be readable by others than its owner and group.
std::string readFile(const std::string& name, bool isPrivate, std::string& text);

// A new secret, 128 random bits as 22 characters. With a file name: the one that the file holds; a file that is not
// there is made, with mode 0600.
std::string makeSecret(std::string& secret);
std::string keepSecret(const std::string& file, std::string& secret);

// Reads the file of users, lines of NAME:PASSWORD or NAME:PASSWORD:ro, and replaces those that were read before.
std::string readUsers(const std::string& file);

// True for an address that only this machine reaches.
bool isLoopback(const sockaddr_storage& address);
