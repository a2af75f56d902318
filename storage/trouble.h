// What goes wrong: what an error of the disk means for a request, and lines on standard error.
#pragma once

#include <string>

// The HTTP status for an error number, negated or not.
unsigned statusOf(int error);

// True for errors that say nothing about the request: the disk fails or is full, or memory or descriptors are short.
bool isFailure(int error);

void say(const std::string& text);

// Says that requests fail with a status from 500 on, or (0) that clients have to wait; each at most once a minute. It
// needs no memory.
void report(unsigned status, const char* detail);
