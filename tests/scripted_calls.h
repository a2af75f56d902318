// Tables of calls into the daemon's code. Each row is a transcript: it runs in a child process against a scripted
// service, and all that happens has to stand in the row, in its order. A row begins with a line that begins with "$";
// its fields are separated by "; " or a line's end:
//   "$ NAME ARGUMENT,ARGUMENT"  a call, by its name in `calls`; "$ trace" shows the lines of the transport and of the
//       path look-up too, which are left out otherwise
//   "O TEXT", "E TEXT"  a line on one of the output streams
//   "> METHOD URL|HEADER|BODY"  a request; "C*N" is a body of N times the byte C
//   "< STATUS BODY", "< BYTES"  the answer to a request; one that begins with "reset" has the connection reset behind
//       it, with "keep" closed when another request has come, which gets no answer
//   "= NUMBER"  the call's result
//   "exit STATUS", "signal NUMBER"  the child's end, if that is not exit 0
//   "..."  anything, up to the fields that follow
//   "? ANSWER"  the same, with this answer; the row is repeated for each of several
// `words` are replaced, and BASE by the service's address. Lines that begin with "//" are comments.
#pragma once

#include <ctime>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

using Arguments = const std::vector<char*>&;
extern std::map<std::string, std::function<std::optional<long>(Arguments)>> calls;
extern std::map<std::string, std::string> words;

// Runs the rows of a table that begins in that line, each behind the fields of `start`.
void expectRows(const char* file, int line, const std::string& start, const std::string& rows);

// In the child: whether all lines are shown; the clock, which moves on by `clockStep` seconds each time it is read;
// what has happened so far.
extern bool traced;
extern time_t clockNow, clockStep;
std::string transcript();
