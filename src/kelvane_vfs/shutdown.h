// How the daemon stops. The signal handler writes a byte into a self-pipe, the exit thread reads it and makes FUSE
// leave its loop. A loop that waits for a server that does not answer cannot end: then a watchdog detaches the disk and
// ends the process with status 1, after a second signal or half a minute after the first.
#pragma once

// Opens the pipe and starts the exit thread; failures are printed and leave the daemon without an exit thread.
void startExitThread();

// Called in the process that serves, before the handlers are installed: starts the watchdog, or prints why there is
// none. If FUSE has forked into the background since, it also starts an exit thread with a pipe of its own: a fork
// copies only the calling thread, and the parent's exit thread may still read from the parent's pipe. If that fails,
// the process ends here, unmounted and with status 1.
void prepareToStop();

// The function of the exit thread; the argument (the mount point) is not used.
void* exitThreadFunction(void* arg);

// Handler of the stopping signals.
void handleSignal(int signal);

// Installs `handler` for `signal`, whatever was installed before; 0, or -1 after printing what failed.
int set_one_signal_handler(int signal, void (*handler)(int));

// Installs the handlers of SIGHUP, SIGINT and SIGTERM and ignores SIGPIPE.
void signals_init();
