// What exists once in a process: its globals, its standard descriptors, its environment and its end. `main`
// sets the globals before the FUSE loop starts, except the pipe and the exit thread (shutdown), `exitCode` and
// `finderInformed`.
#pragma once

#include <atomic>
#include <cstdint>
#include <pthread.h>

// Base URL of the storage service, used verbatim in front of every encoded path.
extern char baseURL[128];

// The disk's name (heap copy, lives as long as the process).
extern char* finderName;

// The mount point as given on the command line (not copied).
extern const char* mountPoint;

// The directory that FUSE mounts at, absolute (heap copy, lives as long as the process), or null when the command line
// names none. Differs from the mount point above where that is relative or an option stands behind it.
extern char* mountDirectory;

// Read and write end of the pipe from the signal handler to the exit thread; zeros until it is open.
extern int threadPipe[2];

// The exit thread; never joined.
extern pthread_t closeFuseThread;

// Exit status for the case that FUSE itself reports success; 1 after a stopping signal.
extern std::atomic<std::int32_t> exitCode;

// 1 once the first attribute request has started the sidebar registration. Plain on purpose: two first
// requests at the same moment may both start it, and the second insertion changes nothing.
extern int finderInformed;

// Opens /dev/null in the place of standard input, output and error where they are closed, so that no other file gets
// their numbers. Called first.
void openStandardDescriptors();

// Empties the environment, where the libraries would look for proxies, certificates, name servers, stack sizes and
// more: what the daemon does depends on its command line alone. Called before the first thread is made.
void forgetEnvironment();

// Ends the process with `status` after flushing standard output, without running exit handlers: other threads are still
// inside libcurl and its TLS library, whose clean-up would free what they use. When several threads call it at once,
// the first one's status counts; the others never return.
[[noreturn]] void endProcess(int status);
