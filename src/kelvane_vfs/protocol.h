// The service's wire format where it is not plain text: the status envelope, members of reply objects, open flags.
#pragma once

#include <cjson/cJSON.h>

// A member that every reply of its kind has. A reply without it ends the process through abort(), after a line on
// standard error for the service's author.
const cJSON* requiredMember(const cJSON* object, const char* key);

// The same member's integer value (signed 32-bit, as cJSON reads it).
int requiredInt(const cJSON* object, const char* key);

// Judges the reply of make-directory and rename: 0 for success, -2 for failure after a line on standard
// error. `body` (may be null) stays with the caller.
int parse_jsonp_response(long status, const char* body);

// Translates the platform's open flags into the service's flag bits; drops flags that the service does not know.
int open_flags_local_to_kelv(int flags);
