// Who may do what: browsers are refused, everybody else has to know the secret, or a name and its password, or both.
#pragma once

#include "storage/request.h"

// Checks the head of a request before anything is opened. Returns 0 with the sender in `request`, or the HTTP status
// that refuses it. The time that the check takes does not depend on how much of the secret was right.
unsigned admit(const RequestHead& head, const Options& options, Request& request);
