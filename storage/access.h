// Who may do what: browsers are refused, everybody else has to know the secret, or a name and its password, or both.
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

// Checks the headers of a request and `text`, the target of its request line as it arrived, before anything is opened.
// Returns 0 with the sender in `visitor`, or the HTTP status that refuses the request. The time that the check takes
// does not depend on how much of the secret was right.
unsigned admit(MHD_Connection* connection, const AccessOptions& options, std::string_view text, Visitor& visitor);

// The functions below that return a text return an empty one, or say in words what is wrong.

// Reads a file that is not empty. A private one must not be readable by others than its owner and group.
std::string readFile(const std::string& name, bool isPrivate, std::string& text);

// Makes a new secret, 128 random bits as 22 characters. `keepSecret` takes the secret that `file` holds; if the file is
// not there, it makes the file, with mode 0600 and a new secret.
std::string makeSecret(std::string& secret);
std::string keepSecret(const std::string& file, std::string& secret);

// Reads the file of users, lines of NAME:PASSWORD or NAME:PASSWORD:ro, and replaces those that were read before.
std::string readUsers(const std::string& file);

// True for an address that only this machine reaches.
bool isLoopback(const sockaddr_storage& address);
