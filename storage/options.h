// The command line.
#pragma once

#include <string>
#include <vector>

enum Status { success = 0, failure = 1, wrongUsage = 2 };

struct Options {
    std::vector<std::string> listen; // addresses or names
    std::vector<std::string> hosts;  // names of the server, besides localhost and its addresses
    std::string port = "0";
    std::string base = "/"; // what every path begins with; ends in the secret and a slash where there is one
    std::string certificateFile, keyFile, usersFile, secretFile, logFile; // empty where they are not given
    bool readOnly = false;                                                // for everybody
    bool sync = false;
    bool noSecret = false;
    bool behindProxy = false;
    const char* directory = nullptr;
};

// Returns -1 to go on, else the exit status; what is wrong has been said then.
int parseOptions(int argc, char* argv[], Options& options);

// Says what is wrong with the arguments and returns the status for that.
int complainOfUsage(const std::string& text);
