// How the daemon stops: a signal handler writes one byte into a pipe, the exit thread reads it and makes FUSE
// leave its loop. Nothing of FUSE is called inside the handler.
#pragma once

// Opens the pipe and starts the exit thread; failures are printed and leave the daemon without an exit
// thread.
void startExitThread();

// Called in the process that serves: starts the exit thread anew if FUSE has forked into the background
// since, because a fork takes no thread but the caller along.
void keepExitThread();

// Body of the exit thread; the argument (the mount point) is not used.
void* exitThreadFunction(void* arg);

// Handler of the stopping signals.
void handleSignal(int signal);

// Installs `handler` for `signal`, whatever was installed before; 0, or -1 after printing what failed.
int set_one_signal_handler(int signal, void (*handler)(int));

// Installs the handlers of SIGHUP, SIGINT and SIGTERM and ignores SIGPIPE.
void signals_init();
