// The small files that options name, and the secret of the base URL.
#pragma once

#include <string>

// These functions return an empty text, or say in words what is wrong.

// Reads a file that is not empty. A private one must not be readable by others than its owner and group.
std::string readSettings(const std::string& file, bool isPrivate, std::string& text);

// Makes a new secret, 128 random bits as 22 characters.
std::string makeSecret(std::string& secret);

// Takes the secret that `file` holds. A file that is not there is made, with mode 0600; an empty one gets a new secret.
std::string keepSecret(const std::string& file, std::string& secret);
