// Tables of calls into the daemon's code. Each row runs in a child process against a scripted service. Its output, its
// requests and its end make one text, in the order in which they happen. A row gives that text in fields, separated by
// "; " or a line's end:
//   "O TEXT", "E TEXT"  a line on one of the output streams; the lines of the transport and of the path look-up count
//       only in rows that have one of them
//   "> METHOD URL|HEADER|BODY => STATUS REPLY"  a request, and how it is answered; "=> BYTES" an answer alone; one that
//       begins with "reset" has the connection reset behind it, with "keep" closed when another request has come
//   "= NUMBER"  the call's result
//   "exit STATUS", "signal NUMBER"  the child's end, if that is not exit 0
// With "..." for its first field a row gives the end of the text. The service's address is HOST; `words` are replaced.
#pragma once

#include <ctime>
#include <functional>
#include <map>
#include <string>

extern std::map<std::string, std::string> words;
std::string bodyText(const std::string& body);

// `start` answers, in fields, what comes before the call: nothing (there is no cache then), the request for the root's
// attributes, or also those for the listings of "/", "/d" and "/dir x".
// A failure names the caller's line; clang 14 has no std::source_location for that.
void expectRow(const std::string& start, const std::function<long()>& call, const std::string& row,
               int atLine = __builtin_LINE(), const char* inFile = __builtin_FILE());

// In the child: the clock, which moves on by `clockStep` seconds each time it is read; what has happened so far.
extern time_t clockNow, clockStep;
std::string transcript();
