// The command line, and the small files that it names. What is wrong with them is thrown in words.
#pragma once

#include "storage/system.h"

enum ExitStatus { success = 0, failure = 1, wrongUsage = 2 };

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

// Returns -1 to go on, else the exit status. Throws std::invalid_argument.
int parseOptions(int argc, char* argv[], Options& options);

// The text of a file that is not empty. A private one must not be readable by others than its owner and group. Throws
// std::runtime_error.
std::string readSettings(const std::string& file, bool isPrivate);
