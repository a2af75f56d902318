// The users: names and passwords.
#pragma once

#include <string>
#include <string_view>

// Reads the file of users, lines of NAME:PASSWORD or NAME:PASSWORD:ro, and replaces those that were read before. A
// password is a hash in a format of crypt(5), or plain. Returns an empty text, or says in words what is wrong.
std::string readUsers(const std::string& file);

// Returns 0 where nobody needs a name, and for a user with the right password, who is stored; else the HTTP status:
// 401, or 503 while too many others wait. `credentials` are those of basic authentication, in base64. The first check
// of a hashed password is slow on purpose; then it is known.
unsigned checkUser(std::string_view credentials, std::string& user, bool& readOnly);
