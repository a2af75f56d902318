// Who may do what: browsers are refused, everybody else has to know the secret, or a name and its password, or both.
#pragma once

#include "storage/request.h"

// The secret of the base URL, 128 random bits as 22 characters: the one in `file`, which is made with mode 0600 if it
// is not there, or a new one if the name is empty. Throws std::runtime_error, in words.
std::string takeSecret(const std::string& file);

// Reads the file of users, lines of NAME:PASSWORD or NAME:PASSWORD:ro, and replaces those that were read before. A
// password is a hash in a format of crypt(5), or plain. Throws std::runtime_error, in words.
void readUsers(const std::string& file);

// Checks the head of a request. Returns 0 with the sender in `request`, or the HTTP status that refuses it: 503 while
// too many passwords wait for their check. The first check of a hashed password is slow on purpose; then it is known.
// The time that a check takes does not depend on how much of a secret was right.
unsigned admit(const RequestHead& head, const Options& options, Request& request);
