// What a plain read gets: the listing of a directory, the content of a file or a part of it.
#pragma once

#include <microhttpd.h>
#include <string>

// Answers with what is at `path`, or with the status of the error.
MHD_Result sendContents(MHD_Connection* connection, const std::string& path);
